#include "tools/network/NetworkOptions.h"

#include <stdexcept>
#include <vector>

#include "machine/Manifest.h"
#include "tools/check/Document.h"

namespace tools {

void addNetworkOptions(cxxopts::Options& options, const std::string& ownAddress) {
    // clang-format off
    options.add_options("Network")
        ("address", "own IPv4 or IPv6 address (" + ownAddress + ")", cxxopts::value<std::string>(), "ADDRESS")
        ("network", "peers outside it are ignored", cxxopts::value<std::string>(), "ADDRESS/BITS")
        ("discovery-port", "UDP port of service discovery (30490)", cxxopts::value<unsigned>(), "PORT")
        ("group", "multicast group or broadcast address of service discovery", cxxopts::value<std::string>(), "ADDRESS")
        ("manifest", "machine manifest whose \"someip\" section applies", cxxopts::value<std::string>(), "FILE");
    // clang-format on
}

kyo::Json::Value networkSection(const cxxopts::ParseResult& given, const std::string& otherwise) {
    kyo::Json::Value section(kyo::Json::objectValue);
    const std::string file = given.count("manifest") != 0 ? given["manifest"].as<std::string>() : otherwise;
    if (!file.empty()) {
        vlmCheck::Document document;
        std::vector<vlmCheck::Finding> findings;
        if (!vlmCheck::readDocument(file, document, findings)) {
            throw std::runtime_error(file + ": " + findings.front().reason);
        }
        machine::Manifest manifest;
        std::string error;
        if (!machine::readManifest(document.root, manifest, error)) {
            throw std::runtime_error(file + ": " + error);
        }
        if (document.root.isMember("someip")) {
            section = document.root["someip"];
        }
    }
    for (const char* option : {"address", "network"}) {
        if (given.count(option) != 0) {
            section[option] = given[option].as<std::string>();
        }
    }
    if (given.count("group") != 0) {
        section["discovery"]["group"] = given["group"].as<std::string>();
    }
    if (given.count("discovery-port") != 0) {
        section["discovery"]["port"] = given["discovery-port"].as<unsigned>();
    }
    return section;
}

}  // namespace tools
