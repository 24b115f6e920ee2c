#pragma once
/// Service discovery driven by hand: a clock that stands still until it is moved, and what was sent, read
/// again.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "someip/ServiceDiscovery.h"

namespace vlmTest {

struct SdNews : someip::SdObserver {
    static std::string text(const someip::EventgroupKey& key) {
        return std::to_string(key.service.service) + "." + std::to_string(key.service.instance) + "/" +
               std::to_string(key.eventgroup);
    }
    static std::string text(const someip::ServiceKey& key) {
        return std::to_string(key.service) + "." + std::to_string(key.instance);
    }

    void serviceUp(const someip::RemoteService& service) override {
        news.push_back("up " + text(service.key) + " " + someip::toText(service.endpoint));
    }
    void serviceDown(const someip::RemoteService& service, const char*) override {
        news.push_back("down " + text(service.key));
    }
    void subscriptionChanged(const someip::EventgroupKey& key, someip::SubscriptionState state) override {
        static const char* const names[] = {"idle", "requested", "acknowledged", "refused"};
        news.push_back(std::string(names[static_cast<int>(state)]) + " " + text(key));
    }
    void multicastGiven(const someip::EventgroupKey& key, const someip::Endpoint& group) override {
        news.push_back("group " + text(key) + " " + someip::toText(group));
    }
    bool admitSubscriber(const someip::EventgroupKey&, const someip::Endpoint&) override { return admits; }
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
    bool admits = true;
};

/// One sent message, read again.
struct SentSd {
    bool multicast;
    someip::Endpoint to;
    someip::SdMessage message;
    std::vector<std::uint8_t> bytes;
};

inline std::vector<SentSd> readAgain(const std::vector<someip::SdOutbox::Datagram>& datagrams) {
    std::vector<SentSd> all;
    for (const auto& datagram : datagrams) {
        SentSd sent{!datagram.to, datagram.to.value_or(someip::Endpoint{}), {}, datagram.bytes};
        someip::MessageReader messages(datagram.bytes);
        someip::Header header;
        std::span<const std::uint8_t> body;
        std::string error;
        EXPECT_TRUE(messages.next(header, body));
        EXPECT_TRUE(parseSdMessage(header, body, sent.message, error)) << error;
        EXPECT_LE(datagram.bytes.size(), someip::kMaxSdMessage);
        all.push_back(std::move(sent));
    }
    return all;
}

/// "find 1.65535", "offer 1.1", "stop-offer 1.1", "subscribe 1.1/2", "ack 1.1/2" and so on, of one message.
inline std::vector<std::string> describe(const someip::SdMessage& message) {
    std::vector<std::string> texts;
    for (const auto& entry : message.entries) {
        const bool zero = entry.ttl == 0;
        std::string text;
        switch (entry.type) {
            case someip::SdEntryType::Find:
                text = "find";
                break;
            case someip::SdEntryType::Offer:
                text = zero ? "stop-offer" : "offer";
                break;
            case someip::SdEntryType::Subscribe:
                text = zero ? "stop-subscribe" : "subscribe";
                break;
            case someip::SdEntryType::SubscribeAck:
                text = zero ? "nack" : "ack";
                break;
        }
        text += " " + std::to_string(entry.service) + "." + std::to_string(entry.instance);
        if (entry.isEventgroupEntry()) {
            text += "/" + std::to_string(entry.eventgroup);
        }
        texts.push_back(text);
    }
    return texts;
}

/// A device on the other side, as far as its messages go.
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
    std::vector<std::uint8_t> byMulticast(const std::vector<someip::SdEntry>& entries) {
        for (const auto& one : entries) {
            outbox.multicast().add(one);
        }
        return outbox.take().at(0).bytes;
    }
    std::vector<std::uint8_t> byUnicast(const std::vector<someip::SdEntry>& entries) {
        for (const auto& one : entries) {
            outbox.to({1, 1}).add(one);
        }
        return outbox.take().at(0).bytes;
    }

    someip::Endpoint endpoint;
    someip::SdOutbox outbox;
};

struct SdBench : ::testing::Test {
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
    bool hear(const SdPeer& from, bool multicast, const std::vector<std::uint8_t>& bytes) {
        std::string error;
        const bool good = sd.onDatagram(from.endpoint, multicast, bytes, now, error);
        collect();
        return good;
    }
    void collect() {
        for (auto& one : readAgain(sd.outbox().take())) {
            sentAt.push_back(now);
            sent.push_back(std::move(one));
        }
    }
    /// The entries of everything sent since the last call.
    std::vector<std::string> takeSent() {
        std::vector<std::string> all;
        for (const auto& one : sent) {
            for (const auto& text : describe(one.message)) {
                all.push_back(text);
            }
        }
        sent.clear();
        sentAt.clear();
        return all;
    }

    someip::SdTimes times;
    SdNews observer;
    someip::Network network{0x7F000000, 0xFF000000};
    someip::ServiceDiscovery sd{times, {0x7F000001, 45000}, network, observer, 1};
    Clock::time_point now{std::chrono::hours(1)};
    std::vector<SentSd> sent;
    std::vector<Clock::time_point> sentAt;
    SdPeer vehicle{{0x7F000002, 30490}};
    SdPeer stranger{{0x7F000003, 30490}};
};

}  // namespace vlmTest
