#pragma once
/// Addresses of IPv4 and IPv6, and endpoints of UDP and TCP, in host byte order.
#include <compare>
#include <cstdint>
#include <functional>
#include <string>

namespace someip {

class Address {
  public:
    /// 0.0.0.0
    constexpr Address() noexcept = default;
    /// An IPv4 address. Implicit: most addresses are.
    constexpr Address(std::uint32_t ipv4) noexcept : m_low(ipv4) {}
    /// An IPv6 address: its upper and lower 64 bits, and the index of the interface for a link-local one.
    static constexpr Address ipv6(std::uint64_t high, std::uint64_t low,
                                  std::uint32_t interface = 0) noexcept {
        Address address;
        address.m_ipv6 = true;
        address.m_high = high;
        address.m_low = low;
        return address.on(interface);
    }

    constexpr bool isIpv6() const noexcept { return m_ipv6; }
    constexpr std::uint32_t ipv4() const noexcept { return static_cast<std::uint32_t>(m_low); }
    constexpr std::uint64_t high() const noexcept { return m_high; }
    constexpr std::uint64_t low() const noexcept { return m_low; }

    /// True for 224.0.0.0/4 and ff00::/8.
    constexpr bool isMulticast() const noexcept {
        return m_ipv6 ? (m_high >> 56) == 0xFF : (m_low >> 28) == 0xE;
    }
    /// True for fe80::/10 and groups such as ff02::1, which mean something else at each interface.
    constexpr bool isLinkLocal() const noexcept {
        const auto group = (m_high >> 48) & 0xFF0F;
        return m_ipv6 && ((m_high >> 54) == 0x3FA || group == 0xFF01 || group == 0xFF02);
    }
    /// The index of the interface of a link-local address; 0: not known.
    constexpr std::uint32_t interface() const noexcept { return m_interface; }
    /// The address at that interface: another one only if it is link-local.
    constexpr Address on(std::uint32_t interface) const noexcept {
        Address address = *this;
        address.m_interface = isLinkLocal() ? interface : 0;
        return address;
    }
    /// The address with zeros after its first bits.
    constexpr Address prefix(unsigned bits) const noexcept {
        Address address = *this;
        address.m_high = m_ipv6 ? cut(m_high, bits, 64) : 0;
        address.m_low = m_ipv6 ? cut(m_low, bits > 64 ? bits - 64 : 0, 64) : cut(m_low, bits, 32);
        return address;
    }

    auto operator<=>(const Address&) const = default;

  private:
    /// `value`, of `size` bits, without those after the first `bits`.
    static constexpr std::uint64_t cut(std::uint64_t value, unsigned bits, unsigned size) noexcept {
        return bits >= size ? value : bits == 0 ? 0 : value >> (size - bits) << (size - bits);
    }

    bool m_ipv6 = false;
    std::uint32_t m_interface = 0;
    std::uint64_t m_high = 0;  ///< IPv4: 0
    std::uint64_t m_low = 0;
};

enum class Protocol : std::uint8_t { Udp, Tcp };

struct Endpoint {
    Address address;
    std::uint16_t port = 0;
    Protocol protocol = Protocol::Udp;

    auto operator<=>(const Endpoint&) const = default;
};

/// A range of addresses ("127.0.0.0/8", "fd00::/64").
struct Network {
    Address base;
    unsigned bits = 0;

    /// A link-local range whose interface is known has the addresses of that interface alone.
    constexpr bool contains(const Address& address) const noexcept {
        return address.isIpv6() == base.isIpv6() && address.prefix(bits).on(0) == base.on(0) &&
               (base.interface() == 0 || base.interface() == address.interface());
    }
};

/// "192.168.1.1", "fd00::1", "fe80::1%eth0".
std::string toText(const Address& address);
/// "192.168.1.1:30509", "[fd00::1]:30509", and "192.168.1.1:30509/tcp".
std::string toText(const Endpoint& endpoint);
/// Accepts what toText() returns. Returns false for other texts, and for an interface that is not there.
bool parseAddress(const std::string& text, Address& out);
/// Accepts "address/bits" without an interface, and clears the address bits after the prefix.
bool parseNetwork(const std::string& text, Network& out);

}  // namespace someip

template <>
struct std::hash<someip::Endpoint> {
    std::size_t operator()(const someip::Endpoint& endpoint) const noexcept {
        const std::uint64_t address = endpoint.address.low() ^ endpoint.address.high() * 0x9E3779B97F4A7C15u ^
                                      endpoint.address.interface();
        return std::hash<std::uint64_t>()((address << 16 | address >> 48) ^ endpoint.port) ^
               static_cast<std::size_t>(endpoint.protocol);
    }
};
