#pragma once
/// Session numbers of service discovery: those that we send, and what those of a peer tell about it.
#include <chrono>
#include <cstdint>
#include <list>
#include <span>
#include <unordered_map>
#include <vector>

#include "someip/Endpoint.h"
#include "someip/SdMessage.h"
#include "someip/Segmentation.h"

namespace someip {

/// The numbers of one relation of ours: from 1, never 0. The reboot flag stays set until they wrap.
class SdSessionCounter {
  public:
    SdMessageBuilder::Session next() noexcept {
        const SdMessageBuilder::Session session{m_next, m_reboot};
        if (m_next == 0xFFFF) {
            m_next = 1;
            m_reboot = false;
        } else {
            ++m_next;
        }
        return session;
    }

  private:
    std::uint16_t m_next = 1;
    bool m_reboot = true;
};

/// Judges the messages of all peers, what they send by multicast and by unicast apart.
class SdPeerSessions {
  public:
    enum class Verdict : std::uint8_t { Fine, Duplicate, Rebooted };

    /// `message` is the whole message with its header. After a reboot the peer's other relation starts anew
    /// as well, so that one reboot is told once.
    ///
    /// A number that falls by less than kMostLate within kAtOnce, to another than 1, is a message that was
    /// overtaken: nothing restarts that fast, and what restarts begins with 1. Two messages of one moment may
    /// well arrive in the wrong order, and would cost all subscriptions as a reboot.
    Verdict judge(const Endpoint& peer, bool multicast, std::uint16_t session, bool rebootFlag,
                  std::span<const std::uint8_t> message, Clock::time_point now);

    static constexpr std::uint16_t kMostLate = 4;
    static constexpr std::chrono::milliseconds kAtOnce{50};

    std::size_t peers() const noexcept { return m_index.size(); }

    /// More peers than that are not remembered: the one unheard for the longest is forgotten.
    static constexpr std::size_t kMaxPeers = 256;

  private:
    struct Relation {
        bool known = false;
        bool reboot = false;
        std::uint16_t session = 0;
        Clock::time_point heard;
        std::vector<std::uint8_t> last;
    };
    struct Peer {
        Endpoint endpoint;
        Relation multicast;
        Relation unicast;
    };
    std::list<Peer> m_peers;  ///< the one heard last in front
    std::unordered_map<Endpoint, std::list<Peer>::iterator> m_index;
};

}  // namespace someip
