#pragma once
/// What the transports have in common. Only their implementations know UDP from TCP.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

#include "someip/Endpoint.h"

namespace someip {

/// Where a server sends the messages of its events: its UDP socket, or a client's TCP connection.
class Outlet {
  public:
    virtual ~Outlet() = default;
    /// Sends one message or segment. May block while a send buffer is full. Returns 0 or errno. Any thread.
    virtual int send(const Endpoint& to, std::span<const std::uint8_t> message) noexcept = 0;
    /// Bytes of the longest payload that is sent whole; a longer one is sent in segments.
    virtual std::size_t maxPayload() const noexcept = 0;
};

/// Where messages come from: a UDP socket, or a TCP connection. Used by the middleware's thread alone.
class Inlet {
  public:
    /// `bytes`: one message of a stream, or a datagram, which may have several.
    using Take = std::function<void(const Endpoint& from, std::span<const std::uint8_t> bytes)>;

    virtual ~Inlet() = default;
    virtual int fd() const noexcept = 0;
    /// Reads once, without waiting, and passes on what has come. Returns false when nothing more will come.
    virtual bool receive(const Take& take) = 0;
};

}  // namespace someip
