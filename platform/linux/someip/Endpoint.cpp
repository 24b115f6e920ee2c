#include "someip/Endpoint.h"

#include <arpa/inet.h>

#include <charconv>

namespace someip {

std::string toText(Address address) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        text += std::to_string((address >> shift) & 0xFFu);
        if (shift != 0) {
            text += '.';
        }
    }
    return text;
}

std::string toText(const Endpoint& endpoint) {
    return toText(endpoint.address) + ":" + std::to_string(endpoint.port) +
           (endpoint.protocol == Protocol::Tcp ? "/tcp" : "");
}

bool parseAddress(const std::string& text, Address& out) {
    in_addr address{};
    if (::inet_pton(AF_INET, text.c_str(), &address) != 1) {
        return false;
    }
    out = ntohl(address.s_addr);
    return true;
}

bool parseNetwork(const std::string& text, Network& out) {
    const auto slash = text.find('/');
    if (slash == std::string::npos || !parseAddress(text.substr(0, slash), out.base)) {
        return false;
    }
    unsigned bits = 0;
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data() + slash + 1, last, bits);
    if (error != std::errc() || end != last || bits > 32) {
        return false;
    }
    out.mask = bits == 0 ? 0 : ~Address{0} << (32 - bits);
    out.base &= out.mask;
    return true;
}

}  // namespace someip
