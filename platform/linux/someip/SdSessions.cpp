#include "someip/SdSessions.h"

#include <algorithm>

namespace someip {

SdPeerSessions::Verdict SdPeerSessions::judge(const Endpoint& peer, bool multicast, std::uint16_t session,
                                              bool rebootFlag, std::span<const std::uint8_t> message,
                                              Clock::time_point now) {
    if (const auto known = m_index.find(peer); known != m_index.end()) {
        m_peers.splice(m_peers.begin(), m_peers, known->second);
    } else {
        if (m_peers.size() == kMaxPeers) {
            m_index.erase(m_peers.back().endpoint);
            m_peers.pop_back();
        }
        m_peers.emplace_front();
        m_peers.front().endpoint = peer;
        m_index.emplace(peer, m_peers.begin());
    }
    Peer& entry = m_peers.front();
    Relation& relation = multicast ? entry.multicast : entry.unicast;

    auto verdict = Verdict::Fine;
    if (relation.known) {
        if (relation.session == session && std::ranges::equal(relation.last, message)) {
            return Verdict::Duplicate;
        }
        if (rebootFlag && relation.reboot && session > 1 && session < relation.session &&
            relation.session - session < kMostLate && now - relation.heard <= kAtOnce) {
            return Verdict::Fine;
        }
        if (rebootFlag && (!relation.reboot || session <= relation.session)) {
            verdict = Verdict::Rebooted;
            (multicast ? entry.unicast : entry.multicast) = {};
        }
    }
    relation.known = true;
    relation.reboot = rebootFlag;
    relation.session = session;
    relation.heard = now;
    relation.last.assign(message.begin(), message.end());
    return verdict;
}

}  // namespace someip
