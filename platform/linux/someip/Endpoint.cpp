#include "someip/Endpoint.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <charconv>

#include "someip/ByteOrder.h"

namespace someip {

std::string toText(const Address& address) {
    std::uint8_t bytes[16];
    char text[INET6_ADDRSTRLEN];
    if (!address.isIpv6()) {
        storeBig(bytes, address.ipv4());
        return ::inet_ntop(AF_INET, bytes, text, sizeof text);
    }
    storeBig(bytes, address.high());
    storeBig(bytes + 8, address.low());
    std::string all = ::inet_ntop(AF_INET6, bytes, text, sizeof text);
    if (address.interface() != 0) {
        char name[IF_NAMESIZE];
        const bool known = ::if_indextoname(address.interface(), name) != nullptr;
        all += "%" + (known ? std::string(name) : std::to_string(address.interface()));
    }
    return all;
}

std::string toText(const Endpoint& endpoint) {
    const std::string address = toText(endpoint.address);
    return (endpoint.address.isIpv6() ? "[" + address + "]" : address) + ":" + std::to_string(endpoint.port) +
           (endpoint.protocol == Protocol::Tcp ? "/tcp" : "");
}

bool parseAddress(const std::string& text, Address& out) {
    std::uint8_t bytes[16];
    if (::inet_pton(AF_INET, text.c_str(), bytes) == 1) {
        out = loadBig<std::uint32_t>(bytes);
        return true;
    }
    const auto percent = text.find('%');
    if (::inet_pton(AF_INET6, text.substr(0, percent).c_str(), bytes) != 1) {
        return false;
    }
    std::uint32_t interface = 0;
    if (percent != std::string::npos) {
        interface = ::if_nametoindex(text.c_str() + percent + 1);
        if (interface == 0) {
            return false;
        }
    }
    out = Address::ipv6(loadBig<std::uint64_t>(bytes), loadBig<std::uint64_t>(bytes + 8), interface);
    return out.interface() == interface;
}

bool parseNetwork(const std::string& text, Network& out) {
    const auto slash = text.find('/');
    if (slash == std::string::npos || !parseAddress(text.substr(0, slash), out.base)) {
        return false;
    }
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data() + slash + 1, last, out.bits);
    if (error != std::errc() || end != last || out.bits > (out.base.isIpv6() ? 128u : 32u)) {
        return false;
    }
    out.base = out.base.prefix(out.bits);
    return out.base.interface() == 0;
}

}  // namespace someip
