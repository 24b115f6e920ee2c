#include "SdBench.h"

using namespace someip;
using namespace vlmTest;

namespace {

using Bytes = std::vector<std::uint8_t>;

// An offer with two options, as an independent device writes it: configuration (unknown here) and endpoint.
const Bytes kOffer = {
    0xFF, 0xFF, 0x81, 0x00, 0x00, 0x00, 0x00, 0x3E, 0x00, 0x00, 0x00, 0x05, 0x01, 0x01,
    0x02, 0x00,                                      // header
    0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x10,  // flags, entries
    0x01, 0x00, 0x00, 0x20, 0x11, 0x01, 0x00, 0x01, 0x01, 0x00, 0x00, 0x03, 0x00, 0x00,
    0x00, 0x00,                                                                          // the offer
    0x00, 0x00, 0x00, 0x1A,                                                              // options
    0x00, 0x0B, 0x01, 0x00, 0x05, 'a',  '=',  'b',  'c',  'd',  0x00, 0x00, 0x00, 0x00,  // configuration
    0x00, 0x09, 0x04, 0x00, 0x7F, 0x00, 0x00, 0x02, 0x00, 0x11, 0x9C, 0x40,              // endpoint
};

Bytes with(std::size_t at, std::uint8_t value) {
    Bytes bytes = kOffer;
    bytes.at(at) = value;
    return bytes;
}

}  // namespace

TEST(SdMessages, ReadAnOfferOfAnIndependentDeviceAndPassOverUnknownEntriesAndOptions) {
    SdMessage message;
    ASSERT_TRUE(readDiscovery(kOffer, message));
    EXPECT_EQ(message.session, 5);
    EXPECT_TRUE(message.reboot);
    EXPECT_TRUE(message.unicast);
    ASSERT_THAT(message.entries, SizeIs(1));
    const auto& entry = message.entries[0];
    EXPECT_THAT(describe(message), ElementsAre("offer 4353.1"));
    EXPECT_EQ(entry.major, 1);
    EXPECT_EQ(entry.ttl, 3u);
    EXPECT_THAT(entry.unicast, ElementsAre(Endpoint{0x7F000002, 40000}));
    EXPECT_TRUE(readDiscovery(with(24, 0x04), message)) << "an entry type that is not known";
    EXPECT_THAT(message.entries, SizeIs(0));
    EXPECT_TRUE(readDiscovery(with(46, 0x77), message)) << "an option type that is not known";
    auto longer = kOffer;
    longer.insert(longer.end(), {1, 2, 3});
    storeBig(&longer[4], static_cast<std::uint32_t>(longer.size() - 8));
    EXPECT_TRUE(readDiscovery(longer, message)) << "bytes after the options";
    EXPECT_THAT(message.entries.at(0).unicast, SizeIs(1));
    EXPECT_TRUE(readDiscovery(with(67, 0x06), message)) << "a TCP endpoint";
    EXPECT_EQ(message.entries.at(0).unicast.at(0).protocol, Protocol::Tcp);
    EXPECT_TRUE(readDiscovery(with(67, 0x21), message)) << "an endpoint of another protocol";
    ASSERT_THAT(message.entries, SizeIs(1));
    EXPECT_THAT(message.entries[0].unicast, SizeIs(0));
    Bytes empty(kOffer.begin(), kOffer.begin() + 20);
    empty.resize(28);
    storeBig(&empty[4], 20u);
    EXPECT_TRUE(readDiscovery(empty, message)) << "neither entries nor options";
}

TEST(SdMessages, ContradictionsAreRefused) {
    SdMessage message;
    EXPECT_FALSE(readDiscovery(with(2, 0x80), message)) << "another method";
    EXPECT_FALSE(readDiscovery(with(11, 0x00), message)) << "session 0";
    EXPECT_FALSE(readDiscovery(with(12, 0x02), message)) << "protocol version";
    EXPECT_FALSE(readDiscovery(with(13, 0x02), message)) << "interface version";
    EXPECT_FALSE(readDiscovery(with(14, 0x00), message)) << "message type";
    EXPECT_FALSE(readDiscovery(with(23, 0x0F), message)) << "length of entries is no multiple of 16";
    EXPECT_FALSE(readDiscovery(with(23, 0x20), message)) << "entries longer than the message";
    EXPECT_FALSE(readDiscovery(with(20, 0xFF), message)) << "entries of 4 GiB";
    EXPECT_FALSE(readDiscovery(with(43, 0x1B), message)) << "options longer than the message";
    EXPECT_FALSE(readDiscovery(with(43, 0x19), message)) << "options that cut their last one";
    EXPECT_FALSE(readDiscovery(with(45, 0xFF), message)) << "an option longer than the options";
    EXPECT_FALSE(readDiscovery(with(45, 0x00), message)) << "an option of nothing";
    EXPECT_FALSE(readDiscovery(with(59, 0x08), message)) << "an IPv4 endpoint of eight bytes";
    EXPECT_FALSE(readDiscovery(with(60, 0x06), message)) << "an IPv6 endpoint of nine bytes";
    EXPECT_FALSE(readDiscovery(with(27, 0x30), message)) << "a run of options that ends behind them";
    EXPECT_FALSE(readDiscovery(with(25, 0x02), message)) << "a run of options that starts behind them";
    Bytes cut(kOffer.begin(), kOffer.begin() + 24);
    storeBig(&cut[4], std::uint32_t{16});
    EXPECT_FALSE(readDiscovery(cut, message)) << "no entries";
}

TEST(SdMessages, ManyEntriesAreSplitAndShareTheirOptions) {
    SdOutbox outbox;
    SdPeer peer({0x7F000002, 30490});
    for (std::uint16_t group = 1; group <= 200; ++group) {
        outbox.to(peer.endpoint).add(peer.subscribe(1, group));
    }
    const auto sent = readAgain(outbox.take());
    ASSERT_THAT(sent, SizeIs(3));
    std::uint16_t group = 0;
    for (std::size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].message.session, i + 1);
        for (const auto& entry : sent[i].message.entries) {
            EXPECT_EQ(entry.eventgroup, ++group);
            EXPECT_THAT(entry.unicast, ElementsAre(Endpoint{0x7F000002, 50000}));
        }
        EXPECT_EQ(sent[i].size, 16 + 12 + 16 * sent[i].message.entries.size() + 12) << "one option";
    }
    EXPECT_EQ(group, 200);
}

TEST(SdMessages, OptionsOfBothKindsOfNetworkAreWrittenAndRead) {
    const auto nodeAddress = Address::ipv6(0xFD00'0000'0000'0001, 0x0203'0405'0607'0809);
    SdPeer peer({nodeAddress, 30490});
    auto entry = peer.subscribe(1, 1);
    entry.unicast = {{nodeAddress, 0x1234}, {0x7F000002, 50000}, {nodeAddress, 0x1234, Protocol::Tcp}};
    entry.multicast = {{Address::ipv6(0xFF02'0000'0000'0000, 5), 30491}, {0xEF000001, 30491}};
    for (std::uint16_t group = 1; group <= 70; ++group) {
        entry.eventgroup = group;
        peer.outbox.to(peer.endpoint).add(entry);
    }
    const auto datagrams = peer.outbox.take();
    const auto sent = readAgain(datagrams);
    ASSERT_THAT(sent, SizeIs(1));
    ASSERT_THAT(sent[0].message.entries, SizeIs(70));
    for (const auto& one : sent[0].message.entries) {
        EXPECT_EQ(one.unicast, entry.unicast);
        EXPECT_EQ(one.multicast, entry.multicast);
    }
    const auto& bytes = datagrams[0].bytes;
    EXPECT_EQ(Bytes(bytes.begin() + 16 + 12 + 70 * 16, bytes.end()),
              (Bytes{0x00, 0x15, 0x06, 0x00, 0xFD, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x02, 0x03,
                     0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x00, 0x11, 0x12, 0x34, 0x00, 0x09, 0x04, 0x00,
                     0x7F, 0x00, 0x00, 0x02, 0x00, 0x11, 0xC3, 0x50, 0x00, 0x15, 0x06, 0x00, 0xFD, 0x00,
                     0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09,
                     0x00, 0x06, 0x12, 0x34, 0x00, 0x15, 0x16, 0x00, 0xFF, 0x02, 0x00, 0x00, 0x00, 0x00,
                     0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x11, 0x77, 0x1B,
                     0x00, 0x09, 0x14, 0x00, 0xEF, 0x00, 0x00, 0x01, 0x00, 0x11, 0x77, 0x1B}));
}

TEST(SdMessages, AreNumberedPerRelationFrom1WithoutZero) {
    SdOutbox outbox;
    const auto next = [&](std::uint32_t to) {
        (to != 0 ? outbox.to({to, 1}) : outbox.multicast()).add(SdEntry{});
        return readAgain(outbox.take()).at(0).message;
    };
    EXPECT_EQ(next(1).session, 1);
    EXPECT_EQ(next(2).session, 1);
    for (unsigned i = 1; i <= 0xFFFF; ++i) {
        const auto message = next(0);
        ASSERT_EQ(message.session, i);
        ASSERT_TRUE(message.reboot);
    }
    EXPECT_EQ(next(0).session, 1);
    EXPECT_FALSE(next(0).reboot) << "the numbers have wrapped";
    EXPECT_TRUE(next(1).reboot) << "another relation";
}
