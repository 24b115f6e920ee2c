#include "support/Pipeline.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <thread>
#include <utility>

#include "bus/PubSubService.h"
#include "catalog/VlmJsonCatalog.h"
#include "collect/IngressQueue.h"
#include "config/ConfigResponseHandler.h"
#include "kyo/Status.h"
#include "services/adapters/VLMAirbag.h"
#include "services/adapters/VLMGNSS.h"
#include "support/Samples.h"

namespace vlmBench {

using kyo::Json::Value;
using namespace vlmProd;

namespace {

constexpr someip::Endpoint kVehicle{0x7F000002, 40000};
constexpr auto kPatience = std::chrono::seconds(20);
constexpr auto kNudgeAfter = std::chrono::milliseconds(5);

/// The number of finished samples: collected or lost.
std::uint64_t ended() {
    static const auto& collected = kyo::Status::counter("records.collected");
    return collected.value() + Pipeline::lost();
}

/// Waits until `expected` samples of this process are finished.
void settle(std::uint64_t expected) {
    auto seen = ended();
    auto changed = std::chrono::steady_clock::now();
    const auto deadline = changed + kPatience;
    while (ended() < expected) {
        std::this_thread::sleep_for(kPollInterval);
        const auto now = std::chrono::steady_clock::now();
        if (const auto value = ended(); value != seen) {
            seen = value;
            changed = now;
        } else if (now - changed > kNudgeAfter) {
            // The wake-up came between the thread's last check and its wait.
            IngressQueue::getInstance()->SendWakeupSignal();
            changed = now;
        }
        if (now > deadline) {
            throw std::runtime_error("records do not arrive");
        }
    }
}

struct Names {
    const char* service;
    const char* resource;
    int index;
};

Names namesOf(Kind kind) {
    return kind == Kind::FullPosition ? Names{"GNSS", "positions", 1} : Names{"Airbag", "notifications", 1};
}

/// Creates collectors with new names.
std::vector<std::string> makeCollectors(const Names& names, int count, long long historyMs) {
    static int made = 0;
    std::vector<std::string> collectors;
    Value config(kyo::Json::objectValue);
    config["CLOCK"][0]["name"] = "clock";
    config["CLOCK"][0]["duration"] = 3'600'000;
    config["REPORT"][0]["name"] = "bench";
    config["REPORT"][0]["application"] = "bench";
    config["REPORT"][0]["from"] = Value(kyo::Json::arrayValue);
    for (int i = 0; i < count; ++i) {
        collectors.push_back("collector" + std::to_string(made++));
        Value& collect = config["COLLECT"][i];
        collect["name"] = collectors.back();
        collect["serv"] = names.service;
        collect["res"] = names.resource;
        collect["index"] = names.index;
        collect["history"] = static_cast<kyo::Json::Int64>(historyMs);
        collect["on"] = "clock";
    }
    ConfigResponseHandler& handler = *ConfigResponseHandler::getInstance();
    if (!handler.createConfigParserFromJson(config)) {
        throw std::runtime_error("the benchmark's own configuration is refused");
    }
    handler.createCollectorObjects();
    return collectors;
}

/// Does the work of a subscription: decodes the payload and calls the adapter's callback.
template <class Adapter, class DT>
std::shared_ptr<someip::EventReceiver> receiverOf(const ac::com::ServiceInterface& service,
                                                  const ac::com::EventInterface& event, const Names& names,
                                                  const std::string& collector,
                                                  void (Adapter::*callback)(std::vector<DT>)) {
    const std::string proxy = std::string(names.service) + "Proxy";
    const auto adapter = std::make_shared<Adapter>(proxy);
    adapter->createResourceObject({names.resource});
    adapter->setSomeIPKey(names.resource, "type");
    adapter->setCollectorName(proxy, names.resource, names.index, collector);
    return std::make_shared<someip::EventReceiver>(
        service, 1, event,
        [adapter, callback](std::span<const std::uint8_t> payload, someip::DecodeReport& report) {
            std::vector<DT> samples;
            if (someip::decodeSamples(payload, samples, report)) {
                ((*adapter).*callback)(std::move(samples));
            }
        });
}

}  // namespace

std::uint64_t Pipeline::lost() {
    static const std::array<kyo::Counter*, 6> places{&kyo::Status::counter("queue.ingress.dropped"),
                                                     &kyo::Status::counter("queue.collector.input.dropped"),
                                                     &kyo::Status::counter("queue.collector.output.dropped"),
                                                     &kyo::Status::counter("threads.failed"),
                                                     &kyo::Status::counter("records.expired"),
                                                     &kyo::Status::counter("records.withoutCollector")};
    std::uint64_t sum = 0;
    for (const auto* place : places) {
        sum += place->value();
    }
    return sum;
}

void haveCatalog() {
    static bool made = false;
    if (!std::exchange(made, true)) {
        auto code = FilesReturnCode::Ok;
        VlmJsonCatalog::createSingleton(VLM_CATALOG_FILE, code);
    }
}

Pipeline::Pipeline(Kind kind, int collectors, long long historyMs, Threads threads)
    : m_dispatcher(someip::ReassemblyLimits{}, m_stop) {
    haveCatalog();
    const Names names = namesOf(kind);
    std::vector<someip::EventDispatcher::Route> routes;
    std::uint16_t service = 0;
    for (const std::string& name : makeCollectors(names, collectors, historyMs)) {
        // Each lane is a service of its own with a different id.
        std::shared_ptr<someip::EventReceiver> receiver;
        std::vector<std::uint8_t> datagram;
        if (kind == Kind::FullPosition) {
            auto interface = qdr::services::gnss::kInterface;
            interface.serviceId = static_cast<std::uint16_t>(interface.serviceId + 0x100 * service++);
            const auto& which = qdr::services::gnss::kEvent_positions;
            receiver = receiverOf<VLMGNSS>(interface, which, names, name, &VLMGNSS::callback_positions);
            datagram = datagramWith(interface, which, fullPosition());
        } else {
            auto interface = qdr::services::airbag::kInterface;
            interface.serviceId = static_cast<std::uint16_t>(interface.serviceId + 0x100 * service++);
            const auto& which = qdr::services::airbag::kEvent_notifications;
            receiver =
                receiverOf<VLMAirbag>(interface, which, names, name, &VLMAirbag::callback_notifications);
            datagram = datagramWith(interface, which, airbagNotification());
        }
        routes.push_back({kVehicle, receiver});
        m_lanes.push_back({std::move(datagram)});
    }
    m_dispatcher.setRoutes(routes);
    if (threads == Threads::Real) {
        ConfigResponseHandler::getInstance()->startIngressQueue();
    }
}

void Pipeline::inject() {
    m_dispatcher.onDatagram(kVehicle, m_lanes[m_next].datagram, someip::Clock::now());
    m_next = (m_next + 1) % m_lanes.size();
}

void Pipeline::burst(int samples) {
    const auto before = ended();
    for (int i = 0; i < samples; ++i) {
        inject();
    }
    settle(before + static_cast<std::uint64_t>(samples));
}

void Pipeline::sampleByHand() {
    inject();
    Record record;
    if (IngressQueue::getInstance()->takeRecord(&record)) {
        ConfigResponseHandler::getInstance()->sendRecordsToCollectorObject(std::move(record));
    }
}

void Pipeline::run(int samples) {
    for (int sent = 0; sent < samples; sent += kBurst) {
        burst(std::min(kBurst, samples - sent));
    }
}

void Pipeline::drain() {
    const auto waiting = [] { return kyo::Status::snapshot()["records"]["waiting"].asInt64(); };
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    for (int looks = 0; waiting() > 0; ++looks) {
        if (looks % 100 == 0) {  // again, for records that came during an earlier tick
            Message tick;
            PubSubService::getInstance().processMessage(tick);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("output queues do not empty");
        }
    }
}

}  // namespace vlmBench
