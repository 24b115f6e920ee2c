#include "someip/ServiceDiscovery.h"

namespace someip {

std::vector<SdOutbox::Datagram> SdOutbox::take() {
    std::vector<Datagram> datagrams;
    for (auto& bytes : m_multicast.take([this] { return m_multicastSession.next(); })) {
        datagrams.push_back({std::nullopt, std::move(bytes)});
    }
    for (auto& [peer, builder] : m_unicast) {
        if (m_unicastSessions.size() >= kMaxRelations && !m_unicastSessions.contains(peer)) {
            m_unicastSessions.erase(m_unicastSessions.begin());
        }
        SdSessionCounter& session = m_unicastSessions[peer];
        for (auto& bytes : builder.take([&session] { return session.next(); })) {
            datagrams.push_back({peer, std::move(bytes)});
        }
    }
    m_unicast.clear();
    return datagrams;
}

ServiceDiscovery::ServiceDiscovery(const SdTimes& times, const Endpoint& udp, const Endpoint& tcp,
                                   const Network& network, const SdObservers& observers, std::uint32_t seed)
    : m_network(network),
      m_observer(observers.peers),
      m_random(seed),
      m_client(times, udp, network, m_outbox, observers.client, m_random),
      m_server(times, udp, tcp, network, m_outbox, observers.server, m_random) {}

void ServiceDiscovery::adopt(SdEntry& entry, const Endpoint& from) const {
    const auto isOther = [&](const Endpoint& one) { return one.address.isIpv6() != m_network.base.isIpv6(); };
    entry.otherEndpoint = entry.otherEndpoint || std::ranges::any_of(entry.unicast, isOther);
    for (auto* const list : {&entry.unicast, &entry.multicast}) {
        std::erase_if(*list, isOther);
        for (Endpoint& one : *list) {
            one.address = one.address.on(from.address.interface());
        }
    }
}

bool ServiceDiscovery::onDatagram(const Endpoint& from, bool multicast,
                                  std::span<const std::uint8_t> datagram, Clock::time_point now,
                                  std::string& error) {
    MessageReader messages(datagram);
    Header header;
    std::span<const std::uint8_t> body;
    bool good = true;
    while (messages.next(header, body)) {
        SdMessage message;
        if (!parseSdMessage(header, body, message, error)) {
            good = false;
            continue;
        }
        const std::span<const std::uint8_t> whole(body.data() - kHeaderSize, kHeaderSize + body.size());
        const auto verdict = m_peers.judge(from, multicast, message.session, message.reboot, whole, now);
        if (verdict == SdPeerSessions::Verdict::Duplicate) {
            continue;
        }
        if (verdict == SdPeerSessions::Verdict::Rebooted) {
            m_observer.peerRebooted(from);
            m_client.onReboot(from, now);
            m_server.onReboot(from);
        }
        for (SdEntry& entry : message.entries) {
            adopt(entry, from);
            switch (entry.type) {
                case SdEntryType::Find:
                    m_server.onFind(entry, from);
                    break;
                case SdEntryType::Offer:
                    m_client.onOffer(entry, {from, multicast, message.explicitInitialData}, now);
                    break;
                case SdEntryType::Subscribe:
                    // A subscription is addressed to one server: multicast ones are ignored.
                    if (!multicast) {
                        m_server.onSubscribe(entry, from, now);
                    }
                    break;
                case SdEntryType::SubscribeAck:
                    if (!multicast) {
                        m_client.onAcknowledgement(entry, from, now);
                    }
                    break;
            }
        }
    }
    if (messages.malformed()) {
        error = "the datagram is no sequence of messages";
        good = false;
    }
    return good;
}

void ServiceDiscovery::onTime(Clock::time_point now) {
    m_client.onTime(now);
    m_server.onTime(now);
}

Clock::time_point ServiceDiscovery::nextDeadline() const {
    return std::min(m_client.nextDeadline(), m_server.nextDeadline());
}

void ServiceDiscovery::shutdown() {
    m_client.shutdown();
    m_server.shutdown();
}

}  // namespace someip
