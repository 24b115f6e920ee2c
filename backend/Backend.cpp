#include "backend/Backend.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <utility>

#include "backend/Compression.h"
#include "backend/ConfigurationFile.h"
#include "backend/Transport.h"
#include "json/JsonFields.h"

namespace vlmBackend {

using kyo::Json::Value;
using vlmProd::compactText;
using vlmProd::member;
using vlmProd::textOf;

namespace {

constexpr std::size_t kRecentIds = 1000;
constexpr std::uint64_t kMostBytes = 64u << 20;  // the most that a vehicle's manifest can allow

/// What stands before the suffix, if the topic has it.
std::optional<std::string> prefixOf(const std::string& topic, const std::string& suffix) {
    if (topic.size() > suffix.size() && topic.ends_with(suffix)) {
        return topic.substr(0, topic.size() - suffix.size());
    }
    return std::nullopt;
}

}  // namespace

bool readResults(const std::string& text, std::vector<int>& results) {
    std::vector<int> read;
    std::istringstream in(text);
    for (std::string item; std::getline(in, item, ',');) {
        if (item == "-") {
            read.push_back(kSilence);
        } else if (item.size() == 1 && item[0] >= '0' && item[0] <= '9') {
            read.push_back(item[0] - '0');
        } else {
            return false;
        }
    }
    if (read.empty() || text.back() == ',') {
        return false;
    }
    results = std::move(read);
    return true;
}

Backend::Backend(Settings settings, Print print)
    : m_settings(std::move(settings)), m_print(std::move(print)) {}

std::vector<Outgoing> Backend::onMessage(const std::string& topic, const std::string& payload) {
    if (const auto at = topic.rfind("/data");
        at != std::string::npos && at > 0 && (at + 5 == topic.size() || topic[at + 5] == '/')) {
        return onData(topic.substr(0, at), topic.substr(at + 5), payload);
    }
    Value content;
    kyo::Json::Reader reader;
    if (!reader.parse(payload, content, false) || !content.isObject()) {
        m_print(topic + ": " + (content.isNull() ? reader.getFormattedErrorMessages() : "no JSON object"));
        return {};
    }
    if (const auto prefix = prefixOf(topic, "/status")) {
        return onStatus(*prefix, content);
    }
    if (const auto prefix = prefixOf(topic, "/config/request")) {
        return onRequest(*prefix);
    }
    return {};
}

/// `form`: "", "/zstd", "/plain/17".
std::vector<Outgoing> Backend::onData(const std::string& prefix, const std::string& form,
                                      const std::string& payload) {
    std::istringstream parts(form);
    std::string encoding;
    std::string number;
    std::getline(parts, encoding, '/');
    std::getline(parts, encoding, '/');
    std::getline(parts, number);
    std::string text;
    std::string error;
    if (!encoding.empty() && encoding != "plain" && encoding != "zstd") {
        m_print(prefix + "/data: the encoding \"" + encoding + "\" is not known");
        return {};
    }
    if (!kyo::orx::decompress(encoding == "zstd" ? kyo::orx::Encoding::Zstd : kyo::orx::Encoding::Plain,
                              payload, text, error)) {
        m_print(prefix + "/data: " + error);
        return {};
    }
    Value content;
    kyo::Json::Reader reader;
    if (!reader.parse(text, content, false) || !content.isObject()) {
        m_print(prefix +
                "/data: " + (content.isNull() ? reader.getFormattedErrorMessages() : "no JSON object"));
        return {};
    }
    return onEnvelope(prefix, content, payload.size(), number);
}

bool Backend::import(const std::string& prefix, const std::string& line) {
    Value content;
    if (!kyo::Json::Reader().parse(line, content, false) || !content.isObject() ||
        !member(content, "envelope").isObject()) {
        return false;
    }
    onEnvelope(prefix, content["envelope"], line.size(), compactText(member(content, "spool")));
    return true;
}

std::vector<Outgoing> Backend::setOpen(bool open) {
    m_settings.open = open;
    m_print(open ? "channel opened" : "channel closed");
    std::vector<Outgoing> out;
    for (const auto& [prefix, vehicle] : m_vehicles) {
        if (vehicle.online) {
            out.push_back(masterControl(prefix, vehicle, 0, open));
        }
    }
    return out;
}

/// Always a whole message, as each one replaces all that the vehicle knew.
Outgoing Backend::masterControl(const std::string& prefix, const Vehicle& vehicle, int result, bool newTicket,
                                const std::string& messageId) {
    m_ticket += newTicket ? 1 : 0;
    const std::vector<std::string> standard{kyo::orx::kDefaultDataType};
    const auto& permitted = !m_settings.permitted.empty() ? m_settings.permitted
                            : !vehicle.offered.empty()    ? vehicle.offered
                                                          : standard;
    Value message = kyo::orx::masterControl("bench-" + std::to_string(m_ticket), permitted,
                                            m_settings.open ? 0 : 1, result);
    if (m_settings.namesEnvelopes && !messageId.empty()) {
        message["messageId"] = messageId;
    }
    return {prefix + "/mastercontrol", compactText(message), {}, m_settings.open};
}

std::vector<Outgoing> Backend::onStatus(const std::string& prefix, const Value& status) {
    Vehicle& vehicle = m_vehicles[prefix];
    vehicle.online = textOf(member(status, "state")) == "online";
    vehicle.offered.clear();
    const Value& types = member(status, "offeredDataTypes");
    for (kyo::Json::ArrayIndex i = 0; types.isArray() && i < types.size(); ++i) {
        vehicle.offered.push_back(textOf(types[i]));
    }
    m_print(prefix + (vehicle.online ? " online: " : " offline: ") + textOf(member(status, "serverName")) +
            ", offers " + compactText(types));
    if (!vehicle.online) {
        return {};
    }
    // Without an opening message a vehicle sends nothing, however often it was opened before.
    return {masterControl(prefix, vehicle, 0, m_settings.open)};
}

std::vector<Outgoing> Backend::onRequest(const std::string& prefix) {
    if (m_settings.configuration.empty()) {
        m_print(prefix + " asks for a configuration; there is none to serve");
        return {};
    }
    std::string error;
    const Value answer = kyo::orx::readConfigurationAnswer(m_settings.configuration, kMostBytes, error);
    m_print(prefix + " asks for a configuration: " +
            (error.empty() ? textOf(answer[0]["recordId"]) : "an empty answer, as " + error));
    return {{prefix + "/config/response", compactText(answer), {}, std::nullopt}};
}

std::vector<Outgoing> Backend::onEnvelope(const std::string& prefix, const Value& envelope, std::size_t bytes,
                                          const std::string& spoolNumber) {
    Vehicle& vehicle = m_vehicles[prefix];
    const std::string id = textOf(member(envelope, "messageId"));
    const bool again =
        std::find(vehicle.recentIds.begin(), vehicle.recentIds.end(), id) != vehicle.recentIds.end();
    if (!again) {
        vehicle.recentIds.push_back(id);
        if (vehicle.recentIds.size() > kRecentIds) {
            vehicle.recentIds.pop_front();
        }
    }

    Value report;
    if (!kyo::Json::Reader().parse(textOf(member(envelope, "orxClientDataReport")), report, false)) {
        m_print(prefix + ": an envelope without a readable report");
    }
    const Value& collections = member(report, "signalCollections");
    std::uint64_t samples = 0;
    for (kyo::Json::ArrayIndex i = 0; collections.isArray() && i < collections.size(); ++i) {
        samples += member(collections[i], "samples").size();
    }

    int result = m_settings.results[std::min(vehicle.answered, m_settings.results.size() - 1)];
    ++vehicle.answered;
    if (!storeEnvelope(envelope)) {
        result = 1;  // what is not stored is not delivered
    }
    ++m_totals.envelopes;
    m_totals.repeated += again ? 1 : 0;
    m_totals.samples += samples;
    m_totals.bytes += bytes;

    std::string line = prefix + ' ' + textOf(member(report, "reportName")) + " #" +
                       textOf(member(report, "sequenceNumber")) + ": " + std::to_string(collections.size()) +
                       " collections, " + std::to_string(samples) + " samples, " + std::to_string(bytes) +
                       " bytes";
    line += spoolNumber.empty() ? "" : ", number " + spoolNumber + " of the spool";
    line += again ? ", again" : "";
    line += result == kSilence ? ", no answer" : ", result " + std::to_string(result);
    m_print(line);

    if (result == kSilence) {
        return {};
    }
    std::vector<Outgoing> out{masterControl(prefix, vehicle, result, false, id)};
    out.back().after = m_settings.answerAfter;
    if (result != 0 && m_settings.open) {
        out.push_back(masterControl(prefix, vehicle, 0, true));
        out.back().after = m_settings.answerAfter + m_settings.reopenAfter;
    }
    return out;
}

bool Backend::storeEnvelope(const Value& envelope) {
    if (m_settings.store.empty()) {
        return true;
    }
    std::ofstream file(m_settings.store, std::ios::app | std::ios::binary);
    file << compactText(envelope) << '\n';
    file.flush();
    if (!file) {
        m_print(m_settings.store.string() + " cannot be written: " + std::strerror(errno));
        return false;
    }
    return true;
}

}  // namespace vlmBackend
