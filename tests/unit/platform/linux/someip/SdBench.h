#pragma once
/// Service discovery driven by hand: the test moves the clock and reads the sent messages.
#include <iterator>

#include "someip/ServiceDiscovery.h"
#include "tests/support/Test.h"

namespace vlmTest {

using Texts = std::vector<std::string>;

struct SdNews : someip::SdClientObserver, someip::SdServerObserver, someip::SdPeerObserver {
    static std::string text(const someip::ServiceKey& key) {
        return std::to_string(key.service) + "." + std::to_string(key.instance);
    }
    static std::string text(const someip::EventgroupKey& key) {
        return text(key.service) + "/" + std::to_string(key.eventgroup);
    }

    void serviceUp(const someip::RemoteService& service) override {
        news.push_back("up " + text(service.key) + " " + someip::toText(service.endpoints.at(0)));
    }
    void serviceDown(const someip::RemoteService& service, const char*) override {
        news.push_back("down " + text(service.key));
    }
    void offerUnusable(const someip::ServiceKey& key, const someip::Endpoint&, const char* reason) override {
        news.push_back("unusable " + text(key) + ": " + reason);
    }
    void subscriptionChanged(const someip::EventgroupKey& key, someip::SubscriptionState state) override {
        static const char* const names[] = {"idle", "requested", "acknowledged", "refused"};
        news.push_back(std::string(names[static_cast<int>(state)]) + " " + text(key));
    }
    void multicastGiven(const someip::EventgroupKey& key, const someip::Endpoint& group) override {
        news.push_back("group " + text(key) + " " + someip::toText(group));
    }
    void subscriberAdded(const someip::EventgroupKey& key, const someip::Endpoint& receiver) override {
        news.push_back("added " + text(key) + " " + someip::toText(receiver));
    }
    void subscriberRemoved(const someip::EventgroupKey& key, const someip::Endpoint& receiver) override {
        news.push_back("removed " + text(key) + " " + someip::toText(receiver));
    }
    void peerRebooted(const someip::Endpoint& peer) override {
        news.push_back("rebooted " + someip::toText(peer));
    }

    Texts news;
};

/// Returns false unless the datagram is a discovery message.
inline bool readDiscovery(std::span<const std::uint8_t> datagram, someip::SdMessage& message) {
    someip::MessageReader messages(datagram);
    someip::Header header;
    std::span<const std::uint8_t> body;
    std::string error;
    return messages.next(header, body) && parseSdMessage(header, body, message, error);
}

/// One sent message, decoded.
struct SentSd {
    std::optional<someip::Endpoint> to;
    someip::SdMessage message;
    std::size_t size;
    someip::Clock::time_point at;
};

inline std::vector<SentSd> readAgain(const std::vector<someip::SdOutbox::Datagram>& datagrams,
                                     someip::Clock::time_point now = {}) {
    std::vector<SentSd> all;
    for (const auto& datagram : datagrams) {
        all.push_back({datagram.to, {}, datagram.bytes.size(), now});
        EXPECT_TRUE(readDiscovery(datagram.bytes, all.back().message));
        EXPECT_LE(datagram.bytes.size(), someip::kMaxSdMessage);
    }
    return all;
}

/// The entries of one message: "find 1.65535", "offer 1.1", "stop-subscribe 1.1/2", "ack 1.1/2" ...
inline Texts describe(const someip::SdMessage& message) {
    using Type = someip::SdEntryType;
    static const std::map<Type, std::pair<std::string, std::string>> names{
        {Type::Find, {"find", "find"}},
        {Type::Offer, {"offer", "stop-offer"}},
        {Type::Subscribe, {"subscribe", "stop-subscribe"}},
        {Type::SubscribeAck, {"ack", "nack"}}};
    Texts texts;
    for (const auto& entry : message.entries) {
        const someip::ServiceKey service{entry.service, entry.instance, entry.major};
        const auto& [lives, ends] = names.at(entry.type);
        texts.push_back((entry.ttl == 0 ? ends : lives) + " " +
                        (entry.isEventgroupEntry()
                             ? SdNews::text(someip::EventgroupKey{service, entry.eventgroup})
                             : SdNews::text(service)));
    }
    return texts;
}

/// The entry with other endpoints.
inline someip::SdEntry at(someip::SdEntry entry, std::vector<someip::Endpoint> endpoints) {
    entry.unicast = std::move(endpoints);
    return entry;
}

/// The messages of a peer.
struct SdPeer {
    explicit SdPeer(someip::Endpoint where) : endpoint(where) {}

    void restart() { outbox = {}; }
    static someip::SdEntry entry(someip::SdEntryType type, std::uint16_t service, std::uint32_t ttl,
                                 std::uint16_t eventgroup = 0, std::vector<someip::Endpoint> unicast = {}) {
        return {.type = type,
                .service = service,
                .instance = 1,
                .major = 1,
                .ttl = ttl,
                .eventgroup = eventgroup,
                .unicast = std::move(unicast),
                .multicast = {}};
    }
    someip::SdEntry offer(std::uint16_t service, std::uint32_t ttl = 3) const {
        return entry(someip::SdEntryType::Offer, service, ttl, 0, {{endpoint.address, 40000}});
    }
    static someip::SdEntry acknowledge(std::uint16_t service, std::uint16_t eventgroup,
                                       std::uint32_t ttl = 3) {
        return entry(someip::SdEntryType::SubscribeAck, service, ttl, eventgroup);
    }
    someip::SdEntry subscribe(std::uint16_t service, std::uint16_t eventgroup) const {
        return entry(someip::SdEntryType::Subscribe, service, 3, eventgroup, {{endpoint.address, 50000}});
    }
    /// The peer's next message, by multicast or unicast.
    std::vector<std::uint8_t> message(bool multicast, const std::vector<someip::SdEntry>& entries) {
        for (const auto& one : entries) {
            (multicast ? outbox.multicast() : outbox.to({1, 1})).add(one);
        }
        return outbox.take().at(0).bytes;
    }

    someip::Endpoint endpoint;
    someip::SdOutbox outbox;
};

struct SdBench : Test {
    using Clock = someip::Clock;

    /// Returns the entries that a step of the test sends. `sent` and `observer` are of the last step.
    template <typename Step>
    Texts after(Step step) {
        sent.clear();
        observer.news.clear();
        begun = now;
        step();
        collect();
        Texts all;
        for (const auto& one : sent) {
            std::ranges::move(describe(one.message), std::back_inserter(all));
        }
        return all;
    }
    Texts advance(std::chrono::milliseconds by) {
        return after([&] {
            const auto until = now + by;
            for (auto next = sd.nextDeadline(); next <= until; next = sd.nextDeadline()) {
                now = std::max(now, next);
                sd.onTime(now);
                collect();
            }
            now = until;
            sd.onTime(now);
        });
    }
    Texts hear(const SdPeer& from, bool multicast, const std::vector<std::uint8_t>& bytes) {
        return after([&] {
            std::string error;
            EXPECT_TRUE(sd.onDatagram(from.endpoint, multicast, bytes, now, error)) << error;
        });
    }
    Texts hearMulticast(SdPeer& from, const std::vector<someip::SdEntry>& entries) {
        return hear(from, true, from.message(true, entries));
    }
    Texts hearUnicast(SdPeer& from, const std::vector<someip::SdEntry>& entries) {
        return hear(from, false, from.message(false, entries));
    }
    void collect() { std::ranges::move(readAgain(sd.outbox().take(), now), std::back_inserter(sent)); }

    /// Expects that every sent message was a multicast with these entries. Returns the times before each.
    std::vector<std::chrono::milliseconds> delaysOf(const Texts& entries) const {
        std::vector<std::chrono::milliseconds> delays;
        for (auto before = begun; const auto& one : sent) {
            EXPECT_FALSE(one.to);
            EXPECT_EQ(describe(one.message), entries);
            delays.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(
                one.at - std::exchange(before, one.at)));
        }
        return delays;
    }

    someip::SdTimes times;
    SdNews observer;
    someip::Network network{0x7F000000, 8};
    someip::ServiceDiscovery sd{times,
                                {0x7F000001, 45000},
                                {0x7F000001, 45000, someip::Protocol::Tcp},
                                network,
                                {observer, observer, observer},
                                1};
    Clock::time_point now{std::chrono::hours(1)};
    Clock::time_point begun = now;
    std::vector<SentSd> sent;
    SdPeer vehicle{{0x7F000002, 30490}};
    SdPeer stranger{{0x7F000003, 30490}};
};

}  // namespace vlmTest
