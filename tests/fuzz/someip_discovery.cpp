/// Discovery datagrams and time, through parser, sessions, client and server. Answers must be readable, and
/// the observer's calls must be consistent.
#include "Messages.h"
#include "someip/ServiceDiscovery.h"

using namespace someip;
using namespace std::chrono_literals;
using namespace vlmFuzz;

namespace {

/// Addresses of one kind.
struct Place {
    Network network;
    Endpoint self;
    Endpoint peers[4];
};
constexpr Place kIpv4{{0x7F000000, 8},
                      {0x7F000001, 50000},
                      {{0x7F000002, 30490}, {0x7F000003, 30490}, {0x7F000002, 30491}, {0x7F000004, 30490}}};
constexpr Address linkLocal(std::uint64_t host, std::uint32_t interface) {
    return Address::ipv6(0xFE80'0000'0000'0000, host, interface);
}
constexpr Place kIpv6{
    {linkLocal(0, 7), 64},
    {linkLocal(1, 7), 50000},
    {{linkLocal(2, 7), 30490}, {linkLocal(3, 7), 30490}, {linkLocal(2, 7), 30491}, {linkLocal(4, 7), 30490}}};
constexpr ServiceKey kWanted[] = {{0x1001, 1, 1}, {0x1002, kAnyInstance, 1}};
constexpr ServiceKey kOffered{0x2001, 1, 1};

struct Witness : SdClientObserver, SdServerObserver, SdPeerObserver {
    explicit Witness(const Network& range) : network(range) {}

    void serviceUp(const RemoteService& service) override {
        require(network.contains(service.endpoints.at(0).address),
                "events come from inside the network only");
        require(service.endpoints.at(0).port != 0, "a service has a port");
        require(up.insert(service.key).second, "a service comes up once");
    }
    void serviceDown(const RemoteService& service, const char*) override {
        require(up.erase(service.key) == 1, "only a service that is up goes down");
    }
    void offerUnusable(const ServiceKey&, const Endpoint&, const char*) override {}
    void subscriptionChanged(const EventgroupKey& eventgroup, SubscriptionState state) override {
        require(state == SubscriptionState::Idle || up.contains(eventgroup.service),
                "only what is offered is subscribed");
    }
    void multicastGiven(const EventgroupKey& eventgroup, const Endpoint& group) override {
        require(up.contains(eventgroup.service) && group.address.isMulticast(), "a group is one");
    }
    void subscriberAdded(const EventgroupKey& eventgroup, const Endpoint& receiver) override {
        require(eventgroup.service == kOffered && eventgroup.eventgroup <= 2,
                "only what is offered has subscribers");
        require(network.contains(receiver.address), "subscribers are inside the network");
        require(++subscribers[eventgroup] <= 2 * SdServer::kMaxSubscribers, "subscribers are bounded");
    }
    void subscriberRemoved(const EventgroupKey& eventgroup, const Endpoint&) override {
        require(subscribers[eventgroup]-- > 0, "only a subscriber is removed");
    }
    void peerRebooted(const Endpoint&) override {}

    const Network network;
    std::set<ServiceKey> up;
    std::map<EventgroupKey, std::size_t> subscribers;
};

void checkSent(ServiceDiscovery& discovery) {
    for (const auto& datagram : discovery.outbox().take()) {
        MessageReader messages(datagram.bytes);
        Header header;
        Bytes body;
        require(datagram.bytes.size() <= kMaxSdMessage, "a message fits into a frame");
        require(messages.next(header, body), "a sent datagram is a message");
        SdMessage message;
        std::string error;
        require(parseSdMessage(header, body, message, error) && !message.entries.empty(),
                "what is sent can be read");
    }
}

}  // namespace

void vlmFuzz::run(Input in) {
    const Place& place = (in.byte() & 1) != 0 ? kIpv6 : kIpv4;
    const Endpoint selfTcp{place.self.address, place.self.port, Protocol::Tcp};
    const Endpoint tcpClient{place.peers[0].address, 50001, Protocol::Tcp};
    Witness witness(place.network);
    ServiceDiscovery discovery({}, place.self, selfTcp, place.network, {witness, witness, witness}, 1);
    Clock::time_point now{1h};
    discovery.client().want(kWanted[0], now);
    discovery.client().want(kWanted[1], now);
    discovery.client().wantEventgroup({kWanted[0], 1}, Protocol::Udp, now);
    discovery.server().offer(kOffered, 0, {{1, {true, false}}, {2, {true, true}}}, now);
    discovery.server().clientConnected(tcpClient);
    std::uint16_t session = 0;
    while (!in.empty()) {
        const auto op = in.byte();
        const Endpoint& from = place.peers[(op >> 2) & 3];
        const bool multicast = (op & 0x10) != 0;
        std::string error;
        switch (op & 3) {
            case 0:
                discovery.onDatagram(from, multicast, in.take(in.word() % 1500), now, error);
                break;
            case 1: {  // a body with the right header and the next session
                const Bytes body = in.take(in.word() % 1500);
                Header header;
                header.service = kSdService;
                header.method = kSdMethod;
                header.session = ++session == 0 ? ++session : session;
                discovery.onDatagram(from, multicast, vlmFuzz::messageOf(header, body), now, error);
                break;
            }
            case 2:
                now += std::chrono::milliseconds(in.word());
                discovery.onTime(now);
                break;
            case 3:
                if ((op & 0x20) != 0) {
                    discovery.client().wantEventgroup({{0x1002, 1, 1}, op},
                                                      (op & 4) != 0 ? Protocol::Tcp : Protocol::Udp, now);
                } else if ((op & 0x40) != 0) {
                    for (const Endpoint& server : discovery.client().neededConnections()) {
                        require(server.protocol == Protocol::Tcp && place.network.contains(server.address),
                                "connections go to servers of the network");
                        (op & 8) != 0 ? discovery.client().connected(server, selfTcp, now)
                                      : discovery.client().disconnected(server);
                    }
                } else if ((op & 0x80) != 0) {
                    discovery.server().clientLost(tcpClient);
                    discovery.server().clientConnected(tcpClient);
                } else {
                    discovery.client().dropEventgroup({kWanted[0], 1});
                    discovery.client().wantEventgroup({kWanted[0], 1}, Protocol::Udp, now);
                }
                break;
        }
        checkSent(discovery);
        require(witness.up.size() <= 2 * SdClient::kMaxOffers, "what is remembered is bounded");
    }
    discovery.shutdown();
    checkSent(discovery);
}
