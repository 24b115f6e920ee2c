#include "someip/SdSessions.h"

#include <gmock/gmock.h>

using namespace someip;
using Verdict = SdPeerSessions::Verdict;

namespace {

constexpr bool kMulticast = true;
constexpr bool kUnicast = false;
const Endpoint kPeer{0x7F000002, 30490};

struct PeerSessions : ::testing::Test {
    Verdict judge(bool multicast, std::uint16_t session, bool reboot, std::uint8_t content = 0,
                  const Endpoint& peer = kPeer) {
        const std::uint8_t message[] = {static_cast<std::uint8_t>(session),
                                        static_cast<std::uint8_t>(session >> 8),
                                        static_cast<std::uint8_t>(reboot), content};
        return sessions.judge(peer, multicast, session, reboot, message, now);
    }
    SdPeerSessions sessions;
    Clock::time_point now{std::chrono::hours(1)};
};

}  // namespace

TEST_F(PeerSessions, NumbersThatGrowAreFineWithGapsAndAtTheWrap) {
    EXPECT_EQ(judge(kMulticast, 7, true), Verdict::Fine) << "whatever comes first";
    EXPECT_EQ(judge(kMulticast, 8, true), Verdict::Fine);
    EXPECT_EQ(judge(kMulticast, 0xFFFF, true), Verdict::Fine) << "lost messages";
    EXPECT_EQ(judge(kMulticast, 1, false), Verdict::Fine) << "wrapped";
    EXPECT_EQ(judge(kMulticast, 5, false), Verdict::Fine);
    EXPECT_EQ(judge(kMulticast, 4, false), Verdict::Fine) << "out of order; without the flag no reboot";
}

TEST_F(PeerSessions, ARebootIsSeenByTheFlagOrByTheNumberAndARepeatIsNone) {
    judge(kMulticast, 9, false);
    EXPECT_EQ(judge(kMulticast, 10, true), Verdict::Rebooted) << "the flag came back";
    EXPECT_EQ(judge(kMulticast, 11, true), Verdict::Fine);
    EXPECT_EQ(judge(kMulticast, 1, true), Verdict::Rebooted) << "the number fell";
    EXPECT_EQ(judge(kMulticast, 1, true), Verdict::Duplicate);
    EXPECT_EQ(judge(kMulticast, 1, true, 1), Verdict::Rebooted) << "the same number, another message";
}

TEST_F(PeerSessions, AMessageThatWasOvertakenIsNoReboot) {
    judge(kUnicast, 9, true);
    EXPECT_EQ(judge(kUnicast, 8, true), Verdict::Fine);
    EXPECT_EQ(judge(kUnicast, 6, true), Verdict::Fine);
    EXPECT_EQ(judge(kUnicast, 5, true), Verdict::Rebooted) << "too far behind";
    judge(kUnicast, 9, true);
    now += std::chrono::milliseconds(51);
    EXPECT_EQ(judge(kUnicast, 8, true), Verdict::Rebooted) << "too late";
    judge(kUnicast, 9, true);
    judge(kUnicast, 2, true);
    EXPECT_EQ(judge(kUnicast, 1, true), Verdict::Rebooted) << "1 is where a new life begins";
}

TEST_F(PeerSessions, MulticastAndUnicastAreJudgedSeparatelyAndOneRebootIsReportedOnce) {
    judge(kMulticast, 50, true);
    EXPECT_EQ(judge(kUnicast, 1, true), Verdict::Fine);
    EXPECT_EQ(judge(kUnicast, 2, true), Verdict::Fine);
    EXPECT_EQ(judge(kMulticast, 51, true), Verdict::Fine);

    EXPECT_EQ(judge(kMulticast, 1, true), Verdict::Rebooted);
    EXPECT_EQ(judge(kUnicast, 1, true), Verdict::Fine) << "the same reboot";
    EXPECT_EQ(judge(kUnicast, 1, true, 1), Verdict::Rebooted) << "the next one";
    EXPECT_EQ(judge(kMulticast, 1, true), Verdict::Fine);
}

TEST_F(PeerSessions, PeersAreForgottenFromTheOneUnheardLongest) {
    judge(kMulticast, 9, true);
    for (std::uint16_t port = 1; port <= 2 * SdPeerSessions::kMaxPeers; ++port) {
        judge(kMulticast, 1, true, 0, {0x7F000009, port});
        if (port < SdPeerSessions::kMaxPeers) {
            judge(kMulticast, static_cast<std::uint16_t>(9 + port), true);
        }
    }
    EXPECT_EQ(sessions.peers(), SdPeerSessions::kMaxPeers);
    EXPECT_EQ(judge(kMulticast, 1, true), Verdict::Fine) << "no longer known";
}
