#pragma once
/// Service discovery driven by hand: the test moves the clock and reads the sent messages.
#include <iterator>

#include "someip/ServiceDiscovery.h"
#include "tests/support/Test.h"

namespace vlmTest {

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

    std::vector<std::string> take() { return std::exchange(news, {}); }

    std::vector<std::string> news;
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
    bool multicast;
    someip::Endpoint to;
    someip::SdMessage message;
    std::size_t size;
    someip::Clock::time_point at;
};

inline std::vector<SentSd> readAgain(const std::vector<someip::SdOutbox::Datagram>& datagrams,
                                     someip::Clock::time_point now = {}) {
    std::vector<SentSd> all;
    for (const auto& datagram : datagrams) {
        const auto to = datagram.to.value_or(someip::Endpoint{});
        all.push_back({!datagram.to, to, {}, datagram.bytes.size(), now});
        EXPECT_TRUE(readDiscovery(datagram.bytes, all.back().message));
        EXPECT_LE(datagram.bytes.size(), someip::kMaxSdMessage);
    }
    return all;
}

/// The entries of one message: "find 1.65535", "offer 1.1", "stop-offer 1.1", "subscribe 1.1/2", "ack 1.1/2"
/// ...
inline std::vector<std::string> describe(const someip::SdMessage& message) {
    using Type = someip::SdEntryType;
    static const std::map<Type, std::pair<std::string, std::string>> names{
        {Type::Find, {"find", "find"}},
        {Type::Offer, {"offer", "stop-offer"}},
        {Type::Subscribe, {"subscribe", "stop-subscribe"}},
        {Type::SubscribeAck, {"ack", "nack"}}};
    std::vector<std::string> texts;
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

/// The messages of a peer.
struct SdPeer {
    explicit SdPeer(someip::Endpoint where) : endpoint(where) {}

    void restart() { outbox = {}; }
    static someip::SdEntry entry(someip::SdEntryType type, std::uint16_t service, std::uint32_t ttl) {
        someip::SdEntry one;
        one.type = type;
        one.service = service;
        one.instance = 1;
        one.major = 1;
        one.ttl = ttl;
        return one;
    }
    someip::SdEntry offer(std::uint16_t service, std::uint32_t ttl = 3) const {
        auto one = entry(someip::SdEntryType::Offer, service, ttl);
        one.unicast = {{endpoint.address, 40000}};
        return one;
    }
    static someip::SdEntry acknowledge(std::uint16_t service, std::uint16_t eventgroup,
                                       std::uint32_t ttl = 3) {
        auto one = entry(someip::SdEntryType::SubscribeAck, service, ttl);
        one.eventgroup = eventgroup;
        return one;
    }
    someip::SdEntry subscribe(std::uint16_t service, std::uint16_t eventgroup, std::uint32_t ttl = 3) const {
        auto one = entry(someip::SdEntryType::Subscribe, service, ttl);
        one.eventgroup = eventgroup;
        one.unicast = {{endpoint.address, 50000}};
        return one;
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

    void advance(std::chrono::milliseconds by) {
        const auto until = now + by;
        for (auto next = sd.nextDeadline(); next <= until; next = sd.nextDeadline()) {
            now = std::max(now, next);
            sd.onTime(now);
            collect();
        }
        now = until;
        sd.onTime(now);
        collect();
    }
    void hear(const SdPeer& from, bool multicast, const std::vector<std::uint8_t>& bytes) {
        std::string error;
        EXPECT_TRUE(sd.onDatagram(from.endpoint, multicast, bytes, now, error)) << error;
        collect();
    }
    void hearMulticast(SdPeer& from, const std::vector<someip::SdEntry>& entries) {
        hear(from, true, from.message(true, entries));
    }
    void hearUnicast(SdPeer& from, const std::vector<someip::SdEntry>& entries) {
        hear(from, false, from.message(false, entries));
    }
    void collect() { std::ranges::move(readAgain(sd.outbox().take(), now), std::back_inserter(sent)); }
    /// The entries of everything sent since the last call.
    std::vector<std::string> takeSent() {
        std::vector<std::string> all;
        for (const auto& one : sent) {
            std::ranges::move(describe(one.message), std::back_inserter(all));
        }
        sent.clear();
        return all;
    }

    /// Expects that every sent message was a multicast with these entries. Returns the times between them.
    std::vector<std::chrono::milliseconds> gapsBetween(const std::vector<std::string>& entries) const {
        std::vector<std::chrono::milliseconds> gaps;
        for (std::size_t i = 0; i < sent.size(); ++i) {
            EXPECT_TRUE(sent[i].multicast);
            EXPECT_EQ(describe(sent[i].message), entries);
            if (i != 0) {
                gaps.push_back(
                    std::chrono::duration_cast<std::chrono::milliseconds>(sent[i].at - sent[i - 1].at));
            }
        }
        return gaps;
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
    std::vector<SentSd> sent;
    SdPeer vehicle{{0x7F000002, 30490}};
    SdPeer stranger{{0x7F000003, 30490}};
};

}  // namespace vlmTest
