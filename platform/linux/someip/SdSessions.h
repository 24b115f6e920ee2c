#pragma once
/// Session numbers of service discovery: our own, and those of peers, from which a reboot is detected.
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

/// Our session numbers towards one peer or group: from 1, never 0. The reboot flag stays set until they wrap.
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

/// Detects reboots in the messages of all peers, separately for multicast and unicast.
class SdPeerSessions {
  public:
    enum class Verdict : std::uint8_t { Fine, Duplicate, Rebooted };

    /// `message` is the whole message with its header. A reboot also resets the peer's other relation
    /// (multicast or unicast), so that one reboot is reported once.
    ///
    /// A number that falls by less than kMostLate within kAtOnce, but not to 1, is a late message, not a
    /// reboot: a restarted peer begins with 1, and none restarts that fast. Taken for a reboot, a late
    /// message would cost all subscriptions.
    Verdict judge(const Endpoint& peer, bool multicast, std::uint16_t session, bool rebootFlag,
                  std::span<const std::uint8_t> message, Clock::time_point now);

    static constexpr std::uint16_t kMostLate = 4;
    static constexpr std::chrono::milliseconds kAtOnce{50};

    std::size_t peers() const noexcept { return m_index.size(); }

    /// Peers remembered, at most; for a further one, the peer that has been silent longest is forgotten.
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
    std::list<Peer> m_peers;  ///< most recently heard first
    std::unordered_map<Endpoint, std::list<Peer>::iterator> m_index;
};

}  // namespace someip
