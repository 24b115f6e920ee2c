#pragma once
/// UDP sockets and the receipt of many datagrams with one system call.
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "someip/Endpoint.h"

namespace someip {

class UdpSocket {
  public:
    struct Options {
        std::uint32_t receiveBufferBytes = 0;  ///< 0: the system's default
        bool shared = false;                   ///< others may bind the same endpoint (group addresses)
        bool broadcast = false;                ///< may send to a broadcast address
        Address interfaceAddress = 0;          ///< for joining and sending to multicast groups
        bool join = false;                     ///< the endpoint is a multicast group to be joined
    };

    /// A socket bound to that endpoint, or none with `error` telling which step failed and why.
    static std::unique_ptr<UdpSocket> open(const Endpoint& endpoint, const Options& options,
                                           std::string& error);
    ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    int fd() const noexcept { return m_fd; }
    /// Where it is bound, with the port that the system chose.
    const Endpoint& endpoint() const noexcept { return m_endpoint; }
    /// The size that the system granted.
    std::uint32_t receiveBufferBytes() const;
    /// Sends one datagram; waits for room in the send buffer only when `wait`. 0 or errno. Any thread.
    int sendTo(const Endpoint& to, std::span<const std::uint8_t> bytes, bool wait) const noexcept;

  private:
    UdpSocket(int fd, const Endpoint& endpoint) : m_fd(fd), m_endpoint(endpoint) {}

    const int m_fd;
    const Endpoint m_endpoint;
};

/// Buffers for one call of receive(). What a datagram refers to is valid until the next call.
class DatagramBatch {
  public:
    static constexpr std::size_t kDatagrams = 32;

    DatagramBatch();

    /// Takes what is there, without waiting. The number of datagrams; 0 when there is none.
    std::size_t receive(const UdpSocket& socket);
    Endpoint from(std::size_t index) const noexcept;
    std::span<const std::uint8_t> bytes(std::size_t index) const noexcept;
    /// How many datagrams the system has thrown away at that socket since it was opened, as told by the
    /// newest datagram of the batch that tells; false when none does.
    bool droppedBySystem(std::uint32_t& total) const noexcept;

  private:
    static constexpr std::size_t kSize = 65536;  // no UDP datagram over IPv4 is larger
    struct alignas(cmsghdr) Control {
        std::uint8_t bytes[CMSG_SPACE(sizeof(std::uint32_t))];
    };

    std::unique_ptr<std::uint8_t[]> m_buffers;  ///< pages are taken as they are written to
    std::array<mmsghdr, kDatagrams> m_headers{};
    std::array<iovec, kDatagrams> m_vectors{};
    std::array<sockaddr_in, kDatagrams> m_senders{};
    std::array<Control, kDatagrams> m_controls{};
    std::size_t m_count = 0;
};

}  // namespace someip
