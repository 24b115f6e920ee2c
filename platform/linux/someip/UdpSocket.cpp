#include "someip/UdpSocket.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace someip {

namespace {

/// The index of the interface that has the IPv6 address; 0 if none has.
unsigned interfaceOf(const Address& address) {
    if (address.interface() != 0) {
        return address.interface();
    }
    ifaddrs* all = nullptr;
    if (::getifaddrs(&all) != 0) {
        return 0;
    }
    unsigned found = 0;
    for (const ifaddrs* one = all; one != nullptr && found == 0; one = one->ifa_next) {
        if (one->ifa_addr != nullptr && one->ifa_addr->sa_family == AF_INET6) {
            const SystemAddress its(*reinterpret_cast<const sockaddr_in6*>(one->ifa_addr));
            found = its.endpoint(Protocol::Udp).address == address ? ::if_nametoindex(one->ifa_name) : 0;
        }
    }
    ::freeifaddrs(all);
    return found;
}

/// Sends to multicast groups at the interface with that address.
bool chooseInterface(int fd, const Address& address) {
    if (address.isIpv6()) {
        return setOption(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, static_cast<int>(interfaceOf(address)));
    }
    in_addr interface {};
    interface.s_addr = htonl(address.ipv4());
    return ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface) == 0;
}

/// Joins the group at the interface with that address.
bool join(int fd, const Address& group, const Address& address) {
    if (group.isIpv6()) {
        ipv6_mreq membership{};
        membership.ipv6mr_multiaddr = ipv6Of(group);
        membership.ipv6mr_interface = interfaceOf(address);
        return ::setsockopt(fd, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &membership, sizeof membership) == 0;
    }
    ip_mreqn membership{};
    membership.imr_multiaddr.s_addr = htonl(group.ipv4());
    membership.imr_address.s_addr = htonl(address.ipv4());
    return ::setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) == 0;
}

}  // namespace

std::unique_ptr<UdpSocket> UdpSocket::open(const Endpoint& requested, const Options& options,
                                           std::string& error) {
    Endpoint endpoint = requested;
    if (endpoint.address.isLinkLocal() && endpoint.address.interface() == 0) {
        endpoint.address = endpoint.address.on(interfaceOf(options.interfaceAddress));
    }
    const int fd = ::socket(familyOf(endpoint.address), SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return openFailed(fd, "cannot make a socket for", endpoint, error);
    }
    if (options.shared && !setOption(fd, SOL_SOCKET, SO_REUSEADDR, 1)) {
        return openFailed(fd, "cannot share", endpoint, error);
    }
    if (options.broadcast && !setOption(fd, SOL_SOCKET, SO_BROADCAST, 1)) {
        return openFailed(fd, "cannot broadcast from", endpoint, error);
    }
    if (options.receiveBufferBytes != 0) {
        // The first needs a privileged process; the second is limited by net.core.rmem_max.
        const int bytes = static_cast<int>(std::min<std::uint32_t>(options.receiveBufferBytes, 1u << 30));
        if (!setOption(fd, SOL_SOCKET, SO_RCVBUFFORCE, bytes)) {
            setOption(fd, SOL_SOCKET, SO_RCVBUF, bytes);
        }
    }
    setOption(fd, SOL_SOCKET, SO_RXQ_OVFL, 1);
    if (options.interfaceAddress != Address() && !chooseInterface(fd, options.interfaceAddress)) {
        return openFailed(fd, "cannot choose the multicast interface for", endpoint, error);
    }
    const SystemAddress address(endpoint);
    if (::bind(fd, address.get(), address.size()) != 0) {
        return openFailed(fd, "cannot bind", endpoint, error);
    }
    if (options.join && !join(fd, endpoint.address, options.interfaceAddress)) {
        return openFailed(fd, "cannot join", endpoint, error);
    }
    return std::unique_ptr<UdpSocket>(new UdpSocket(fd, boundEndpoint(fd, Protocol::Udp)));
}

UdpSocket::~UdpSocket() {
    ::close(m_fd);
}

std::uint32_t UdpSocket::receiveBufferBytes() const {
    int bytes = 0;
    socklen_t size = sizeof bytes;
    ::getsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &bytes, &size);
    return static_cast<std::uint32_t>(bytes) / 2;  // the system reports twice the requested size
}

int UdpSocket::sendTo(const Endpoint& to, std::span<const std::uint8_t> bytes, bool wait) const noexcept {
    const SystemAddress address(to);
    for (;;) {
        if (::sendto(m_fd, bytes.data(), bytes.size(), wait ? MSG_NOSIGNAL : MSG_NOSIGNAL | MSG_DONTWAIT,
                     address.get(), address.size()) >= 0) {
            return 0;
        }
        if (errno != EINTR) {
            return errno;
        }
    }
}

DatagramBatch::DatagramBatch()
    : m_buffers(std::make_unique_for_overwrite<std::uint8_t[]>(kDatagrams * kSize)) {
    for (std::size_t i = 0; i < kDatagrams; ++i) {
        m_vectors[i] = {m_buffers.get() + i * kSize, kSize};
    }
}

std::size_t DatagramBatch::receive(const UdpSocket& socket) {
    for (std::size_t i = 0; i < kDatagrams; ++i) {
        msghdr& header = m_headers[i].msg_hdr;
        header.msg_name = m_senders[i].get();
        header.msg_namelen = m_senders[i].size();
        header.msg_iov = &m_vectors[i];
        header.msg_iovlen = 1;
        header.msg_control = &m_controls[i];
        header.msg_controllen = sizeof m_controls[i];
        header.msg_flags = 0;
    }
    const int count = ::recvmmsg(socket.fd(), m_headers.data(), kDatagrams, MSG_DONTWAIT, nullptr);
    m_count = count > 0 ? static_cast<std::size_t>(count) : 0;
    return m_count;
}

Endpoint DatagramBatch::from(std::size_t index) const noexcept {
    return m_senders[index].endpoint(Protocol::Udp);
}

std::span<const std::uint8_t> DatagramBatch::bytes(std::size_t index) const noexcept {
    return {m_buffers.get() + index * kSize, m_headers[index].msg_len};
}

bool DatagramBatch::droppedBySystem(std::uint32_t& total) const noexcept {
    for (std::size_t i = m_count; i-- > 0;) {
        const msghdr& header = m_headers[i].msg_hdr;
        for (const cmsghdr* one = CMSG_FIRSTHDR(&header); one != nullptr;
             // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): the macro takes no constant
             one = CMSG_NXTHDR(const_cast<msghdr*>(&header), const_cast<cmsghdr*>(one))) {
            if (one->cmsg_level == SOL_SOCKET && one->cmsg_type == SO_RXQ_OVFL) {
                std::memcpy(&total, CMSG_DATA(one), sizeof total);
                return true;
            }
        }
    }
    return false;
}

}  // namespace someip
