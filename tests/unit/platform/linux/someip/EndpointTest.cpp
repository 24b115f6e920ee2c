#include "someip/Endpoint.h"

#include <gmock/gmock.h>
#include <net/if.h>

using namespace someip;

namespace {

Address address(const std::string& text) {
    Address out;
    EXPECT_TRUE(parseAddress(text, out)) << text;
    return out;
}

Network network(const std::string& text) {
    Network out;
    EXPECT_TRUE(parseNetwork(text, out)) << text;
    return out;
}

}  // namespace

TEST(Endpoints, AreWrittenAsTheyAreReadAndOtherTextsAreRefused) {
    for (const char* text :
         {"0.0.0.0", "192.168.1.1", "::", "::1", "fd00::1:2", "fe80::1%lo", "ff02::1%lo"}) {
        EXPECT_EQ(toText(address(text)), text);
    }
    EXPECT_EQ(toText(Endpoint{0x7F000001, 80}), "127.0.0.1:80");
    EXPECT_EQ(toText(Endpoint{address("fd00::1"), 80, Protocol::Tcp}), "[fd00::1]:80/tcp");
    EXPECT_EQ(toText(Endpoint{address("fe80::1%lo"), 80}), "[fe80::1%lo]:80");
    EXPECT_EQ(address("fe80::1%lo").interface(), ::if_nametoindex("lo"));
    Address unused;
    for (const char* text : {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "localhost", "1.2.3.4%lo", "fd00::1%lo",
                             ":1:", "fe80::1%", "fe80::1%no such interface", "[::1]"}) {
        EXPECT_FALSE(parseAddress(text, unused)) << text;
    }
    Network none;
    for (const char* text :
         {"10.0.0.0", "10.0.0.0/", "10.0.0.0/33", "10.0.0.0/8x", "/8", "fd00::/129", "fe80::%lo/64"}) {
        EXPECT_FALSE(parseNetwork(text, none)) << text;
    }
}

TEST(Networks, ContainTheAddressesOfTheirKindWithTheirPrefix) {
    EXPECT_TRUE(network("10.1.2.3/8").contains(address("10.255.0.1")));
    EXPECT_FALSE(network("10.1.2.3/8").contains(address("11.1.2.3")));
    EXPECT_FALSE(network("0.0.0.0/0").contains(address("::1")));
    EXPECT_FALSE(network("::/0").contains(address("1.2.3.4")));
    EXPECT_TRUE(network("0.0.0.0/0").contains(address("255.1.2.3")));
    EXPECT_TRUE(network("::/0").contains(address("fe80::1%lo")));
    for (const auto& [bits, other] : {std::pair{"fd00::/16", "fd01::1"},
                                      {"fd00:0:0:1::/64", "fd00:0:0:2::1"},
                                      {"fd00::1:0/112", "fd00::2:1"},
                                      {"fd00::1/128", "fd00::2"}}) {
        EXPECT_TRUE(network(bits).contains(network(bits).base)) << bits;
        EXPECT_FALSE(network(bits).contains(address(other))) << bits;
    }
    Network ofInterface = network("fe80::/64");
    EXPECT_TRUE(ofInterface.contains(Address::ipv6(0xFE80ull << 48, 1, 7)));
    ofInterface.base = ofInterface.base.on(7);
    EXPECT_TRUE(ofInterface.contains(Address::ipv6(0xFE80ull << 48, 1, 7)));
    EXPECT_FALSE(ofInterface.contains(Address::ipv6(0xFE80ull << 48, 1, 8))) << "the same address, elsewhere";
}
