#pragma once
/// IPv4 addresses, and endpoints of UDP and TCP, in host byte order.
#include <compare>
#include <cstdint>
#include <functional>
#include <string>

namespace someip {

using Address = std::uint32_t;

enum class Protocol : std::uint8_t { Udp, Tcp };

struct Endpoint {
    Address address = 0;
    std::uint16_t port = 0;
    Protocol protocol = Protocol::Udp;

    auto operator<=>(const Endpoint&) const = default;
};

/// A range of addresses ("127.0.0.0/8").
struct Network {
    Address base = 0;
    Address mask = 0;

    bool contains(Address address) const noexcept { return (address & mask) == base; }
};

std::string toText(Address address);
/// "192.168.1.1:30509", and "192.168.1.1:30509/tcp".
std::string toText(const Endpoint& endpoint);
/// Accepts dotted decimal with four numbers and nothing else.
bool parseAddress(const std::string& text, Address& out);
/// Accepts "address/bits" and clears the address bits after the prefix.
bool parseNetwork(const std::string& text, Network& out);

constexpr bool isMulticast(Address address) noexcept {
    return (address >> 28) == 0xE;
}

}  // namespace someip

template <>
struct std::hash<someip::Endpoint> {
    std::size_t operator()(const someip::Endpoint& endpoint) const noexcept {
        return std::hash<std::uint64_t>()((std::uint64_t{endpoint.address} << 16) | endpoint.port) ^
               static_cast<std::size_t>(endpoint.protocol);
    }
};
