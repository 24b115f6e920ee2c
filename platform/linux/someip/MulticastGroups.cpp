#include "someip/MulticastGroups.h"

#include "log/PlatformLog.h"

namespace someip {

void MulticastGroups::want(const EventgroupKey& eventgroup, const Endpoint& endpoint) {
    if (m_groups.contains(endpoint) || m_groups.size() < kMost) {
        Group& group = m_groups[endpoint];
        group.users.insert(eventgroup);
        group.tried = group.inlet != nullptr;  // each acknowledgement is another chance
    }
}

void MulticastGroups::drop(const EventgroupKey& eventgroup) {
    for (auto& [endpoint, group] : m_groups) {
        group.users.erase(eventgroup);
    }
}

void MulticastGroups::maintain(const EventLoop& loop) {
    for (auto one = m_groups.begin(); one != m_groups.end();) {
        auto& [endpoint, group] = *one;
        if (group.users.empty()) {
            if (group.inlet != nullptr) {
                loop.unwatch(group.inlet->fd());
            }
            one = m_groups.erase(one);
            continue;
        }
        if (!group.tried) {
            group.tried = true;
            join(endpoint, group, loop);
        }
        ++one;
    }
}

void MulticastGroups::join(const Endpoint& endpoint, Group& group, const EventLoop& loop) {
    UdpSocket::Options options;
    options.receiveBufferBytes = m_own->receiveBufferBytes();
    options.shared = true;
    options.join = true;
    options.interfaceAddress = m_own->endpoint().address;
    std::string error;
    if (std::shared_ptr<UdpSocket> socket = UdpSocket::open(endpoint, options, error)) {
        loop.watch(socket->fd());
        group.inlet = std::make_unique<DatagramInlet>(std::move(socket), m_batch, m_network);
    }
    if (const auto unlogged = m_changes.note(Clock::now())) {
        if (group.inlet != nullptr) {
            KYO_LOG(5, "Events come by multicast to " << toText(endpoint) << more(*unlogged));
        } else {
            KYO_LOG(3, "Events by multicast cannot be received: " << error << more(*unlogged));
        }
    }
}

void MulticastGroups::unwatch(const EventLoop& loop) const noexcept {
    for (const auto& [endpoint, group] : m_groups) {
        if (group.inlet != nullptr) {
            loop.unwatch(group.inlet->fd());
        }
    }
}

Inlet* MulticastGroups::inlet(int fd) noexcept {
    for (auto& [endpoint, group] : m_groups) {
        if (group.inlet != nullptr && group.inlet->fd() == fd) {
            return group.inlet.get();
        }
    }
    return nullptr;
}

}  // namespace someip
