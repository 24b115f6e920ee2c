// The middleware alone: decoding and delivery, compared with a loop that only receives the same datagrams
// from the same socket; the same for a TCP connection; and the time from an offer on the wire to the
// subscription on the wire.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "someip/EventDispatcher.h"
#include "someip/Runtime.h"
#include "someip/Samples.h"
#include "someip/SdMessage.h"
#include "someip/StreamReader.h"
#include "someip/TcpSocket.h"
#include "someip/UdpSocket.h"
#include "support/Samples.h"

namespace {

using namespace vlmBench;
using namespace someip;

constexpr int kDatagrams = 256;  // per iteration; they fit into the socket's buffer

double threadSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

std::unique_ptr<UdpSocket> openSocket(const Endpoint& endpoint) {
    std::string error;
    UdpSocket::Options options;
    options.receiveBufferBytes = 8u << 20;
    auto socket = UdpSocket::open(endpoint, options, error);
    if (!socket) {
        throw std::runtime_error(error);
    }
    return socket;
}

std::vector<std::uint8_t> positionDatagram() {
    return datagramWith(qdr::services::gnss::kInterface, qdr::services::gnss::kEvent_positions,
                        fullPosition());
}
std::vector<std::uint8_t> airbagDatagram() {
    return datagramWith(qdr::services::airbag::kInterface, qdr::services::airbag::kEvent_notifications,
                        airbagNotification());
}

/// Fills the socket's buffer, then measures how long this thread takes to empty it, calling `use` per
/// datagram.
template <typename Use>
void receive(benchmark::State& state, const std::vector<std::uint8_t>& datagram, const Endpoint& source,
             Use&& use) {
    const auto sender = openSocket(source);
    const auto receiver = openSocket({0x7F006102, 0});
    DatagramBatch batch;
    for (auto _ : state) {
        for (int i = 0; i < kDatagrams; ++i) {
            sender->sendTo(receiver->endpoint(), datagram, true);
        }
        int received = 0;
        const double start = threadSeconds();
        while (const std::size_t count = batch.receive(*receiver)) {
            for (std::size_t i = 0; i < count; ++i) {
                use(sender->endpoint(), batch, i);
            }
            received += static_cast<int>(count);
        }
        state.SetIterationTime(threadSeconds() - start);
        if (received != kDatagrams) {
            state.SkipWithError("datagrams were lost in the kernel");
            return;
        }
    }
    state.counters["samples"] = kDatagrams;
}

void bareLoop(benchmark::State& state, const std::vector<std::uint8_t>& datagram) {
    receive(state, datagram, {0x7F006101, 0}, [](const Endpoint&, const DatagramBatch&, std::size_t) {});
}

/// A receiver that decodes and counts.
template <class DT>
std::shared_ptr<EventReceiver> countingReceiver(const ac::com::ServiceInterface& service,
                                                const ac::com::EventInterface& event,
                                                std::size_t& delivered) {
    return std::make_shared<EventReceiver>(
        service, 1, event, [&delivered](std::span<const std::uint8_t> payload, someip::DecodeReport& report) {
            std::vector<DT> samples;
            if (someip::decodeSamples(payload, samples, report)) {
                delivered += samples.size();
                benchmark::DoNotOptimize(samples.data());
            }
        });
}

template <class DT>
void decodeAndDeliver(benchmark::State& state, const std::vector<std::uint8_t>& datagram,
                      const ac::com::ServiceInterface& service, const ac::com::EventInterface& event) {
    constexpr Endpoint kSource{0x7F006101, 42'137};
    std::size_t delivered = 0;
    const std::atomic<bool> stop{false};
    EventDispatcher dispatcher(ReassemblyLimits{}, stop);
    dispatcher.setRoutes({{kSource, countingReceiver<DT>(service, event, delivered)}});
    receive(state, datagram, kSource, [&](const Endpoint&, const DatagramBatch& batch, std::size_t i) {
        dispatcher.onDatagram(batch.from(i), batch.bytes(i), Clock::now());
    });
    if (delivered != static_cast<std::size_t>(state.iterations()) * kDatagrams) {
        state.SkipWithError("samples were not delivered");
    }
}

/// Two ends of a connection.
struct Connection {
    Connection() {
        std::string error;
        const auto listener = TcpListener::open({0x7F006101, 0, Protocol::Tcp}, error);
        client = listener == nullptr ? nullptr : TcpSocket::connect(0x7F006102, listener->endpoint(), error);
        if (client == nullptr) {
            throw std::runtime_error(error);
        }
        pollfd waiting{listener->fd(), POLLIN, 0};
        ::poll(&waiting, 1, 1000);
        server = listener->accept();
        if (server == nullptr || client->state() != 0) {
            throw std::runtime_error("no connection");
        }
    }

    std::shared_ptr<TcpSocket> server;
    std::shared_ptr<TcpSocket> client;
};

/// Fills the connection, then measures how long this thread takes to empty it. `space()` returns the buffer
/// for the next bytes, `use(size)` takes them.
template <typename Space, typename Use>
void receiveStream(benchmark::State& state, const std::vector<std::uint8_t>& message,
                   const Connection& connection, Space&& space, Use&& use) {
    for (auto _ : state) {
        for (int i = 0; i < kDatagrams; ++i) {
            connection.server->send(message);
        }
        std::size_t left = kDatagrams * message.size();  // and the magic cookies
        const double start = threadSeconds();
        for (;;) {
            const ssize_t size = connection.client->receive(space());
            if (size <= 0) {
                break;
            }
            use(static_cast<std::size_t>(size));
            left -= std::min(left, static_cast<std::size_t>(size));
        }
        state.SetIterationTime(threadSeconds() - start);
        if (left != 0) {
            state.SkipWithError("the stream has stopped");
            return;
        }
    }
    state.counters["samples"] = kDatagrams;
}

void bareStreamLoop(benchmark::State& state, const std::vector<std::uint8_t>& message) {
    const Connection connection;
    std::vector<std::uint8_t> buffer(64u << 10);
    receiveStream(
        state, message, connection, [&] { return std::span(buffer); }, [](std::size_t) {});
}

template <class DT>
void decodeAndDeliverStream(benchmark::State& state, const std::vector<std::uint8_t>& message,
                            const ac::com::ServiceInterface& service, const ac::com::EventInterface& event) {
    const Connection connection;
    const Endpoint source = connection.client->remote();
    std::size_t delivered = 0;
    const std::atomic<bool> stop{false};
    EventDispatcher dispatcher(ReassemblyLimits{}, stop);
    dispatcher.setRoutes({{source, countingReceiver<DT>(service, event, delivered)}});
    StreamReader reader(1u << 20);
    receiveStream(
        state, message, connection, [&] { return reader.space(); },
        [&](std::size_t size) {
            reader.filled(size);
            for (auto one = reader.next(); !one.empty(); one = reader.next()) {
                dispatcher.onDatagram(source, one, Clock::now());
            }
        });
    if (delivered != static_cast<std::size_t>(state.iterations()) * kDatagrams) {
        state.SkipWithError("samples were not delivered");
    }
}

/// A minimal peer that offers a service.
class OfferingPeer {
  public:
    explicit OfferingPeer(std::uint16_t port) : m_socket(openSocket({0x7F006202, port})) {}

    void offer(const Endpoint& to, std::uint32_t ttl) {
        SdEntry entry;
        entry.type = SdEntryType::Offer;
        entry.service = qdr::services::gnss::kInterface.serviceId;
        entry.instance = 1;
        entry.major = qdr::services::gnss::kInterface.majorVersion;
        entry.ttl = ttl;
        entry.unicast.push_back({0x7F006202, 40'000});
        SdMessageBuilder builder;
        builder.add(entry);
        for (const auto& message : builder.take([this] {
                 return SdMessageBuilder::Session{++m_session, true};
             })) {
            m_socket->sendTo(to, message, true);
        }
    }

    /// Returns true when a subscription comes within a second.
    bool awaitSubscription() {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd readable{m_socket->fd(), POLLIN, 0};
            ::poll(&readable, 1, 100);
            const std::size_t count = m_batch.receive(*m_socket);
            for (std::size_t i = 0; i < count; ++i) {
                if (holdsSubscription(m_batch.bytes(i))) {
                    return true;
                }
            }
        }
        return false;
    }

  private:
    static bool holdsSubscription(std::span<const std::uint8_t> datagram) {
        MessageReader reader(datagram);
        Header header;
        std::span<const std::uint8_t> body;
        while (reader.next(header, body)) {
            SdMessage message;
            std::string error;
            if (!parseSdMessage(header, body, message, error)) {
                continue;
            }
            for (const SdEntry& entry : message.entries) {
                if (entry.type == SdEntryType::Subscribe && entry.ttl != 0) {
                    return true;
                }
            }
        }
        return false;
    }

    std::unique_ptr<UdpSocket> m_socket;
    DatagramBatch m_batch;
    std::uint16_t m_session = 0;
};

void offerToSubscription(benchmark::State& state) {
    machine::SomeIpSettings settings;
    settings.address = "127.0.98.1";
    settings.discovery.port = 31'497;
    OfferingPeer peer(settings.discovery.port);
    const Endpoint client{0x7F006201, settings.discovery.port};
    Runtime runtime;
    runtime.start(settings, false);
    const auto& service = qdr::services::gnss::kInterface;
    const auto wish = runtime.receive(service, 1, qdr::services::gnss::kEvent_positions,
                                      [](std::span<const std::uint8_t>, someip::DecodeReport&) {});
    double longest = 0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        peer.offer(client, 3);
        if (!peer.awaitSubscription()) {
            state.SkipWithError("no subscription came");
            break;
        }
        const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        state.SetIterationTime(took);
        longest = std::max(longest, took);
        peer.offer(client, 0);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        while (!runtime.findService(service, 1).empty() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    state.counters["longestMs"] = longest * 1e3;
    runtime.release(wish);
    runtime.stop();
}

}  // namespace

int main(int argc, char** argv) {
    namespace gnss = qdr::services::gnss;
    namespace airbag = qdr::services::airbag;
    const auto position = positionDatagram();
    const auto notification = airbagDatagram();
    for (auto* one :
         {benchmark::RegisterBenchmark("positions/bare", bareLoop, position),
          benchmark::RegisterBenchmark("positions/delivered", decodeAndDeliver<Position>, position,
                                       gnss::kInterface, gnss::kEvent_positions),
          benchmark::RegisterBenchmark("notification/bare", bareLoop, notification),
          benchmark::RegisterBenchmark("notification/delivered", decodeAndDeliver<AirbagNotification>,
                                       notification, airbag::kInterface, airbag::kEvent_notifications),
          benchmark::RegisterBenchmark("positionsTcp/bare", bareStreamLoop, position),
          benchmark::RegisterBenchmark("positionsTcp/delivered", decodeAndDeliverStream<Position>, position,
                                       gnss::kInterface, gnss::kEvent_positions),
          benchmark::RegisterBenchmark("notificationTcp/bare", bareStreamLoop, notification),
          benchmark::RegisterBenchmark("notificationTcp/delivered",
                                       decodeAndDeliverStream<AirbagNotification>, notification,
                                       airbag::kInterface, airbag::kEvent_notifications)}) {
        one->Iterations(64)->UseManualTime()->Unit(benchmark::kMicrosecond);
    }
    benchmark::RegisterBenchmark("offerToSubscription", offerToSubscription)
        ->Iterations(20)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
