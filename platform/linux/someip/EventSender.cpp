#include "someip/EventSender.h"

#include <algorithm>
#include <cstring>

#include "log/PlatformLog.h"
#include "someip/Counters.h"
#include "someip/Segmentation.h"

namespace someip {

EventSender::EventSender(const ac::com::ServiceInterface& service, const ac::com::EventInterface& event)
    : m_service(service), m_event(event), m_target(std::make_shared<Target>()) {}

std::shared_ptr<const EventSender::Target> EventSender::target() const {
    const std::lock_guard lock(m_guard);
    return m_target;
}

void EventSender::change(const std::function<void(Target&)>& how) {
    const std::lock_guard lock(m_guard);
    auto changed = std::make_shared<Target>(*m_target);
    how(*changed);
    changed->distinct = changed->receivers;
    std::ranges::sort(changed->distinct, {}, &Receiver::endpoint);
    changed->distinct.erase(
        std::unique(changed->distinct.begin(), changed->distinct.end(),
                    [](const Receiver& a, const Receiver& b) { return a.endpoint == b.endpoint; }),
        changed->distinct.end());
    m_target = std::move(changed);
}

void EventSender::add(const Endpoint& receiver, std::shared_ptr<Outlet> outlet) {
    change([&](Target& target) { target.receivers.push_back({receiver, std::move(outlet)}); });
}

void EventSender::remove(const Endpoint& receiver) {
    change([&](Target& target) {
        const auto found = std::ranges::find(target.receivers, receiver, &Receiver::endpoint);
        if (found != target.receivers.end()) {
            target.receivers.erase(found);
        }
    });
}

std::size_t EventSender::subscribers() const {
    return target()->distinct.size();
}

void EventSender::setHandler(SubscriptionHandler handler) {
    const std::lock_guard lock(m_guard);
    m_handler = handler ? std::make_shared<const SubscriptionHandler>(std::move(handler)) : nullptr;
}

void EventSender::notify(const Endpoint& receiver, bool subscribed) {
    const CallGate::Pass pass(m_gate);
    std::shared_ptr<const SubscriptionHandler> handler;
    {
        const std::lock_guard lock(m_guard);
        handler = m_handler;
    }
    if (!pass || handler == nullptr) {
        return;
    }
    try {
        (*handler)(toText(receiver), subscribed);
    } catch (const std::exception& failure) {
        counters().handlerFailures.add();
        KYO_LOG(3, "A subscription handler has failed: " << failure.what());
    } catch (...) {
        counters().handlerFailures.add();
        KYO_LOG(3, "A subscription handler has failed: unknown exception");
    }
}

void EventSender::close() noexcept {
    m_gate.close();
}

std::uint16_t EventSender::nextSession() noexcept {
    for (;;) {
        const auto session =
            static_cast<std::uint16_t>(m_session.fetch_add(1, std::memory_order_relaxed) + 1);
        if (session != 0) {
            return session;
        }
    }
}

Header EventSender::header(std::uint16_t session) const noexcept {
    Header header;
    header.service = m_service.serviceId;
    header.method = m_event.eventId;
    header.session = session;
    header.interfaceVersion = m_service.majorVersion;
    return header;
}

bool EventSender::transmit(const Header& header, std::span<std::uint8_t> message) {
    const auto to = target();
    if (to->distinct.empty() || m_silent.load(std::memory_order_relaxed)) {
        return true;
    }
    bool sent = true;
    const auto send = [&](const Receiver& receiver, std::span<const std::uint8_t> bytes) {
        if (receiver.outlet->send(receiver.endpoint, bytes) == 0) {
            counters().sent.add();
            return true;
        }
        counters().sendFailed.add();
        sent = false;
        return false;
    };
    // Segments have headers of their own, written in place of the message's.
    for (const Receiver& receiver : to->distinct) {
        if (message.size() - kHeaderSize <= receiver.outlet->maxPayload()) {
            writeHeader(header, message.data());
            send(receiver, message);
        } else {
            segment(header, message.subspan(kHeaderSize),
                    [&](std::span<const std::uint8_t> datagram) { return send(receiver, datagram); });
        }
    }
    return sent;
}

bool EventSender::send(std::span<std::uint8_t> message) {
    Header header = this->header(nextSession());
    header.length = static_cast<std::uint32_t>(kLengthCovers + message.size() - kHeaderSize);
    return transmit(header, message);
}

namespace {

/// The positions of the structures in an encoded payload, for changing them.
struct Structures {
    std::vector<std::uint8_t>& bytes;
    std::size_t array = kHeaderSize;  ///< position of the array's length
    std::size_t first = 0;            ///< position of the first structure's length; 0: there is none
    std::size_t last = 0;

    explicit Structures(std::vector<std::uint8_t>& message) : bytes(message) {
        for (std::size_t at = array + 4; at + 4 <= bytes.size();
             at += 4 + loadBig<std::uint32_t>(&bytes[at])) {
            first = first == 0 ? at : first;
            last = at;
        }
    }
    std::size_t sizeOf(std::size_t structure) const { return loadBig<std::uint32_t>(&bytes[structure]); }
    void grow(std::size_t lengthAt, int by) {
        storeBig(&bytes[lengthAt], loadBig<std::uint32_t>(&bytes[lengthAt]) + static_cast<std::uint32_t>(by));
    }
    void insert(std::size_t structure, std::size_t at, std::vector<std::uint8_t> what) {
        bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(at), what.begin(), what.end());
        grow(structure, static_cast<int>(what.size()));
        grow(array, static_cast<int>(what.size()));
    }
};

void truncateLast(std::vector<std::uint8_t>& message) {
    Structures structures(message);
    if (structures.first == 0) {
        return;
    }
    if (structures.sizeOf(structures.last) == 0) {
        structures.insert(structures.last, message.size(), {0});  // half a tag
        return;
    }
    message.pop_back();
    structures.grow(structures.last, -1);
    structures.grow(structures.array, -1);
}

void doubleFirstMember(std::vector<std::uint8_t>& message) {
    Structures structures(message);
    if (structures.first == 0 || structures.sizeOf(structures.first) == 0) {
        return;
    }
    const std::size_t start = structures.first + 4;
    const unsigned wireType = message[start] >> 4;
    const std::size_t size = wireType < 4 ? 2 + (std::size_t{1} << wireType)
                                          : 6 + std::size_t{loadBig<std::uint32_t>(&message[start + 2])};
    const auto from = message.begin() + static_cast<std::ptrdiff_t>(start);
    structures.insert(structures.first, start + size, {from, from + static_cast<std::ptrdiff_t>(size)});
}

}  // namespace

bool EventSender::sendFaulty(std::vector<std::uint8_t>& message, const WireFault& fault) {
    using Kind = WireFault::Kind;
    const auto last = static_cast<std::uint16_t>(m_session.load(std::memory_order_relaxed));
    Header header = this->header(fault.kind == Kind::DuplicatedSession && last != 0 ? last : nextSession());
    std::uint32_t lie = 0;
    switch (fault.kind) {
        case Kind::TruncatedStructure:
            truncateLast(message);
            break;
        case Kind::WrongLength:
            lie = 100;
            message.resize(std::min(message.size(), kHeaderSize + kMaxUnsegmentedPayload));
            break;
        case Kind::WrongInterfaceVersion:
            ++header.interfaceVersion;
            break;
        case Kind::WrongProtocolVersion:
            ++header.protocolVersion;
            break;
        case Kind::DuplicatedSession:
            break;
        case Kind::DoubledMember:
            doubleFirstMember(message);
            break;
        case Kind::UnknownMember:
            if (Structures structures(message); structures.first != 0) {
                const auto end = structures.first + 4 + structures.sizeOf(structures.first);
                structures.insert(structures.first, end, {0x17, 0xFF, 0xAA, 0xBB});
            }
            break;
        case Kind::WrongArrayLength:
            Structures(message).grow(kHeaderSize, 16);
            break;
    }
    header.length = static_cast<std::uint32_t>(kLengthCovers + message.size() - kHeaderSize) + lie;
    return transmit(header, message);
}

}  // namespace someip
