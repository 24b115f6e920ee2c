/// The machine manifest. An accepted one must be usable: valid addresses, ordered times.
#include "Fuzzing.h"
#include "machine/Manifest.h"
#include "someip/Endpoint.h"

void vlmFuzz::run(Input in) {
    kyo::Json::Value document;
    if (!parse(textOf(in.rest()), document)) {
        return;  // the product ends with status 1
    }
    machine::Manifest manifest;
    std::string error;
    if (!machine::readManifest(document, manifest, error)) {
        require(!error.empty(), "what is refused has a reason");
        return;
    }
    require(error.empty(), "what is accepted has none");
    someip::Address own;
    someip::Address group;
    someip::Network network;
    const std::string& address = manifest.someip.address;
    // The interface may be another machine's.
    require(someip::parseAddress(address.substr(0, address.find('%')), own), "the address is one");
    require(someip::parseAddress(manifest.someip.discovery.group, group), "the group is one");
    require(someip::parseNetwork(manifest.someip.network, network), "the network is one");
    require(own.isIpv6() == group.isIpv6() && own.isIpv6() == network.base.isIpv6(), "all are of one kind");
    require(manifest.someip.discovery.initialDelayMinMs <= manifest.someip.discovery.initialDelayMaxMs,
            "the initial delay is a range");
    require(manifest.backend.transport == "directory" || manifest.backend.transport == "mqtt",
            "the transport is one");
    require(manifest.backend.mqtt.reconnectMinSeconds <= manifest.backend.mqtt.reconnectMaxSeconds,
            "the time to connect again is a range");
    if (document.isObject() && document.isMember("someip")) {
        machine::SomeIpSettings settings;
        require(machine::readSomeIpSettings(document["someip"], settings, error),
                "a section alone is read the same");
    }
}
