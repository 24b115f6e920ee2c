#pragma once
/// UDP sockets that receive many datagrams with one system call.
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "someip/Endpoint.h"
#include "someip/Message.h"
#include "someip/SystemAddress.h"
#include "someip/Transport.h"

namespace someip {

class UdpSocket final : public Outlet {
  public:
    struct Options {
        std::uint32_t receiveBufferBytes = 0;  ///< 0: the system's default
        bool shared = false;                   ///< others that say so too may bind the same endpoint
        bool broadcast = false;                ///< may send to a broadcast address
        Address interfaceAddress;  ///< of the interface for multicast groups; 0.0.0.0: none is used
        bool join = false;         ///< join the endpoint as a multicast group
    };

    /// Returns a socket bound to the endpoint, or nullptr with the failed step and the reason in `error`.
    static std::unique_ptr<UdpSocket> open(const Endpoint& requested, const Options& options,
                                           std::string& error);
    ~UdpSocket() override;
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    int fd() const noexcept { return m_fd; }
    /// The bound endpoint, with the port that the system chose.
    const Endpoint& endpoint() const noexcept { return m_endpoint; }
    /// The size that the system granted.
    std::uint32_t receiveBufferBytes() const;
    /// Sends one datagram; waits for space in the send buffer only if `wait`. Returns 0 or errno. Any thread.
    int sendTo(const Endpoint& to, std::span<const std::uint8_t> bytes, bool wait) const noexcept;

    int send(const Endpoint& to, std::span<const std::uint8_t> message) noexcept override {
        return sendTo(to, message, true);
    }
    std::size_t maxPayload() const noexcept override { return kMaxUnsegmentedPayload; }

  private:
    UdpSocket(int fd, const Endpoint& endpoint) : m_fd(fd), m_endpoint(endpoint) {}

    const int m_fd;
    const Endpoint m_endpoint;
};

/// Buffers for one call of receive(). A datagram's bytes are valid until the next call.
class DatagramBatch {
  public:
    static constexpr std::size_t kDatagrams = 32;

    DatagramBatch();

    /// Receives what is available, without waiting. Returns the number of datagrams.
    std::size_t receive(const UdpSocket& socket);
    Endpoint from(std::size_t index) const noexcept;
    std::span<const std::uint8_t> bytes(std::size_t index) const noexcept;
    /// Sets `total` to the number of datagrams that the system has dropped at this socket since it was
    /// opened. Returns false when no datagram of the batch carries that number.
    bool droppedBySystem(std::uint32_t& total) const noexcept;

  private:
    static constexpr std::size_t kSize = 65536;  // no UDP datagram is larger
    struct alignas(cmsghdr) Control {
        std::uint8_t bytes[CMSG_SPACE(sizeof(std::uint32_t))];
    };

    std::unique_ptr<std::uint8_t[]> m_buffers;  ///< the system allocates pages on first use
    std::array<mmsghdr, kDatagrams> m_headers{};
    std::array<iovec, kDatagrams> m_vectors{};
    std::array<SystemAddress, kDatagrams> m_senders{};
    std::array<Control, kDatagrams> m_controls{};
    std::size_t m_count = 0;
};

}  // namespace someip
