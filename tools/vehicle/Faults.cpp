#include "tools/vehicle/Faults.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <sstream>
#include <utility>

#include "tools/check/Suggest.h"

namespace vlmVehicle {

namespace {

using someip::WireFault;

const std::vector<std::pair<std::string, WireFault::Kind>> wireWords = {
    {"truncated", WireFault::TruncatedStructure},         {"wrong-length", WireFault::WrongLength},
    {"wrong-version", WireFault::WrongInterfaceVersion},  {"wrong-protocol", WireFault::WrongProtocolVersion},
    {"duplicated-session", WireFault::DuplicatedSession}, {"doubled-member", WireFault::DoubledMember},
    {"unknown-member", WireFault::UnknownMember},         {"wrong-array-length", WireFault::WrongArrayLength},
};
const std::vector<std::pair<std::string, Fault::Kind>> otherWords = {
    {"silence", Fault::Silence}, {"speak", Fault::Speak},     {"stop", Fault::Stop},
    {"offer", Fault::Offer},     {"restart", Fault::Restart},
};

bool toNumber(const std::string& text, double& out) {
    char* end = nullptr;
    out = std::strtod(text.c_str(), &end);
    return end != text.c_str() && *end == '\0' && std::isfinite(out) && out >= 0;
}

}  // namespace

const std::vector<std::string>& faultWords() {
    static const std::vector<std::string> words = [] {
        std::vector<std::string> all;
        for (const auto& [word, kind] : wireWords) {
            all.push_back(word);
        }
        for (const auto& [word, kind] : otherWords) {
            all.push_back(word);
        }
        return all;
    }();
    return words;
}

bool Fault::parse(const std::string& text, Fault& out, std::string& error) {
    std::istringstream stream(text);
    std::string word;
    std::string target;
    std::string number;
    std::string rest;
    stream >> word >> target >> number >> rest;
    Fault fault;
    fault.text = text;
    const auto wire = std::find_if(wireWords.begin(), wireWords.end(),
                                   [&](const auto& known) { return known.first == word; });
    const auto other = std::find_if(otherWords.begin(), otherWords.end(),
                                    [&](const auto& known) { return known.first == word; });
    if (wire != wireWords.end()) {
        fault.wire = wire->second;
    } else if (other != otherWords.end()) {
        fault.kind = other->second;
    } else {
        const std::string hint = vlmCheck::didYouMean(word, faultWords());
        error = "no fault is called \"" + word + "\"; " +
                (hint.empty() ? "known are " + vlmCheck::listed(faultWords()) : hint);
        return false;
    }
    if (!target.empty()) {
        const auto dot = target.find('.');
        fault.service = target.substr(0, dot);
        fault.event = dot == std::string::npos ? "*" : target.substr(dot + 1);
    }
    double value = 0;
    if (!number.empty() && (!toNumber(number, value) || value > 1e6)) {
        error = "\"" + number + "\" is no number from 0 to 1000000";
        return false;
    }
    if (!rest.empty()) {
        error = "\"" + rest + "\" is too much: \"" + word + " EVENT NUMBER\" is expected";
        return false;
    }
    fault.seconds = value;
    fault.count = number.empty() ? 1 : static_cast<int>(value);
    out = std::move(fault);
    return true;
}

bool Fault::parseTimed(const std::string& text, Fault& out, std::string& error) {
    const auto colon = text.find(':');
    double at = 0;
    if (colon == std::string::npos || !toNumber(text.substr(0, colon), at)) {
        error = "\"" + text + "\": \"SECONDS:FAULT\" is expected, such as \"30:truncated GNSS.positions\"";
        return false;
    }
    if (!parse(text.substr(colon + 1), out, error)) {
        error = "\"" + text + "\": " + error;
        return false;
    }
    out.at = at;
    return true;
}

}  // namespace vlmVehicle
