#include "tools/watch/Address.h"

#include <ifaddrs.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "someip/Endpoint.h"
#include "someip/Runtime.h"
#include "someip/SystemAddress.h"

namespace vlmWatch {

namespace {

constexpr int kFirstOnLoopback = 100;
constexpr int kLastOnLoopback = 199;

bool isLoopback(const std::string& address) {
    return address.starts_with("127.");
}

std::vector<std::string> interfaceAddresses() {
    ifaddrs* first = nullptr;
    if (::getifaddrs(&first) != 0) {
        throw std::runtime_error(std::string("the interfaces of this machine cannot be read: ") +
                                 std::strerror(errno));
    }
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(first, &::freeifaddrs);
    std::vector<std::string> addresses;
    for (const ifaddrs* one = first; one != nullptr; one = one->ifa_next) {
        const int family = one->ifa_addr == nullptr ? AF_UNSPEC : one->ifa_addr->sa_family;
        if (family == AF_INET) {
            const auto* const address = reinterpret_cast<const sockaddr_in*>(one->ifa_addr);
            addresses.push_back(someip::toText(someip::Address(ntohl(address->sin_addr.s_addr))));
        } else if (family == AF_INET6) {
            const someip::SystemAddress address(*reinterpret_cast<const sockaddr_in6*>(one->ifa_addr));
            addresses.push_back(someip::toText(address.endpoint(someip::Protocol::Udp).address));
        }
    }
    return addresses;
}

/// Returns why the runtime cannot use the address; an empty text when it runs.
std::string tryAt(const machine::SomeIpSettings& settings) {
    auto& runtime = someip::Runtime::process();
    if (!runtime.start(settings, false)) {
        return "the middleware cannot be started";
    }
    if (runtime.networkIsUp()) {
        return {};
    }
    std::string reason = runtime.failure();
    runtime.stop();
    return reason;
}

}  // namespace

std::vector<std::string> candidates(const machine::SomeIpSettings& settings) {
    std::vector<std::string> all;
    if (isLoopback(settings.address)) {
        for (int last = kFirstOnLoopback; last <= kLastOnLoopback; ++last) {
            all.push_back("127.0.0." + std::to_string(last));
        }
    } else {
        all = interfaceAddresses();
    }
    someip::Network network;
    someip::parseNetwork(settings.network, network);
    std::erase_if(all, [&](const std::string& text) {
        someip::Address address{};
        return text == settings.address || !someip::parseAddress(text, address) || !network.contains(address);
    });
    return all;
}

void startAt(const machine::SomeIpSettings& settings) {
    if (const std::string reason = tryAt(settings); !reason.empty()) {
        throw std::runtime_error(settings.address + " cannot be used: " + reason);
    }
}

void startAtFreeAddress(machine::SomeIpSettings settings) {
    const std::string others = settings.address;
    std::string reason;
    for (const auto& address : candidates(settings)) {
        settings.address = address;
        reason = tryAt(settings);
        if (reason.empty()) {
            return;
        }
    }
    if (!reason.empty()) {
        throw std::runtime_error("no address is free; the last reason: " + reason);
    }
    throw std::runtime_error(
        "an address of its own is needed, since " + others +
        " is vlmmaster's, and this machine has no other one in " + settings.network +
        ". Add one (ip address add ADDRESS/BITS dev INTERFACE), or name one with --address");
}

}  // namespace vlmWatch
