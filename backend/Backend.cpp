#include "backend/Backend.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <span>
#include <sstream>
#include <utility>

#include "backend/Compression.h"
#include "backend/ConfigurationFile.h"
#include "backend/Transport.h"
#include "backend/store/Leases.h"
#include "json/JsonFields.h"
#include "json/TextLimits.h"

namespace vlmBackend {

using kyo::Json::Value;
using vlmProd::compactText;
using vlmProd::member;
using vlmProd::textOf;

namespace {

constexpr std::size_t kRecentIds = 1000;
constexpr std::size_t kMostShown = 200;                  // bytes of a refused topic
constexpr std::chrono::milliseconds kLease{6000};        // of an instance that renews it no more
constexpr std::chrono::milliseconds kCheckPeriod{1000};  // of what other instances changed
constexpr std::int64_t kMostTaken = 200;                 // vehicles at once, so that instances share them
constexpr std::size_t kAtOnce = 100;                     // vehicles that are written in one transaction
constexpr vlmProd::TextLimits kMessage{
    .bytes = 256u << 10, .depth = 32, .values = 10'000};  // that is no envelope
constexpr std::size_t kMostTextAtOnce = 64u << 20;  // bytes of envelopes in one transaction, and in memory
constexpr std::uint64_t kMostBytes = 64u << 20;     // the most that a vehicle's manifest can allow

std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

constexpr std::string_view kData = "/data";

/// Where the prefix with so many levels ends; npos when the topic has no more than these.
std::size_t endOfPrefix(const std::string& topic, std::size_t levels) {
    auto at = topic.find('/');
    for (; at != std::string::npos && levels > 1; --levels) {
        at = topic.find('/', at + 1);
    }
    return at;
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

std::vector<Outgoing> Backend::onMessages(const std::vector<Incoming>& messages) {
    std::vector<Outgoing> out;
    const auto add = [&out](std::vector<Outgoing> more) {
        std::move(more.begin(), more.end(), std::back_inserter(out));
    };
    std::vector<Arrived> arrived;
    std::size_t arrivedBytes = 0;
    const auto storeArrived = [&] {
        const std::vector<bool> stored = store(arrived);
        for (std::size_t i = 0; i < arrived.size(); ++i) {
            add(onEnvelope(arrived[i], stored[i]));
        }
        arrived.clear();
        arrivedBytes = 0;
    };
    const std::vector<Message> usable = split(messages);
    // First: the instance that serves a vehicle answers it.
    add(onStatuses(usable));
    for (const Message& message : usable) {
        const auto& [prefix, topic, payload] = message;
        if (topic == kData || topic.starts_with(std::string(kData) + '/')) {
            Arrived one = decode(prefix, topic.substr(kData.size()), payload);
            if (one.lacksDictionary) {
                // Readable when the dictionary is there: the vehicle keeps it and waits for an opening
                // message.
                out.push_back(masterControl(one.received.prefix, m_vehicles[one.received.prefix], 2, false));
            } else {
                arrivedBytes += one.received.text.size();
                arrived.push_back(std::move(one));
                if (arrivedBytes > kMostTextAtOnce) {
                    storeArrived();
                }
            }
            continue;
        }
        Value content;
        if (topic == "/status" || !readMessage(message, content)) {
            continue;
        }
        if (topic == "/health" && m_settings.database != nullptr) {
            const auto known = m_vehicles.find(prefix);
            if (known == m_vehicles.end() || !known->second.online || known->second.isOurs) {
                m_settings.database->setHealth(prefix, content, nowMs());
            }
        } else if (topic == "/config/request") {
            add(onRequest(prefix));
        }
    }
    storeArrived();
    return out;
}

/// Of all but those whose topic names no vehicle, which are counted and logged.
std::vector<Backend::Message> Backend::split(const std::vector<Incoming>& messages) {
    std::vector<Message> out;
    for (const auto& [topic, payload] : messages) {
        const auto at = endOfPrefix(topic, m_settings.prefixLevels);
        if (at == std::string::npos) {
            continue;
        }
        std::string prefix = topic.substr(0, at);
        if (const std::string fault = store::nameFault(store::vehicleName(prefix)); fault.empty()) {
            out.push_back({std::move(prefix), topic.substr(at), payload});
        } else {
            ++m_settings.totals->refused;
            m_print(topic.substr(0, kMostShown) + ": refused, " + fault);
        }
    }
    return out;
}

/// False for what is no usable JSON object, which is logged.
bool Backend::readMessage(const Message& message, Value& content) {
    const std::string topic = message.prefix + message.topic;
    kyo::Json::Reader reader;
    if (std::string fault; !vlmProd::isWithin(kMessage, message.payload, fault)) {
        m_print(topic + ": " + fault);
    } else if (!reader.parse(message.payload, content, false) || !content.isObject()) {
        m_print(topic + ": " + (content.isNull() ? reader.getFormattedErrorMessages() : "no JSON object"));
    } else {
        return true;
    }
    return false;
}

/// `suffix`: "", "/zstd", "/plain/17", "/zstd-50001/17". A frame names its dictionary itself.
Backend::Arrived Backend::decode(const std::string& prefix, const std::string& suffix,
                                 const std::string& payload) {
    std::istringstream parts(suffix);
    std::string encoding;
    Arrived out;
    store::Received& received = out.received;
    received.prefix = prefix;
    received.receivedMs = nowMs();
    received.wireBytes = payload.size();
    std::getline(parts, encoding, '/');
    std::getline(parts, encoding, '/');
    std::getline(parts, received.spoolNumber);
    const bool isZstd = encoding == "zstd" || encoding.starts_with("zstd-");
    if (!encoding.empty() && encoding != "plain" && !isZstd) {
        received.reason = "the encoding \"" + encoding + "\" is not known";
    } else {
        using kyo::orx::Encoding;
        const Encoding form = isZstd ? Encoding::Zstd : Encoding::Plain;
        const std::uint32_t dictionary = kyo::orx::dictionaryOf(form, payload);
        out.lacksDictionary = dictionary != 0 && m_settings.dictionaries.find(dictionary) == nullptr;
        kyo::orx::decompress(form, payload, received.text, received.reason, kyo::orx::kLargestText,
                             m_settings.dictionaries);
    }
    if (!received.reason.empty()) {
        received.text = payload;
        m_print(prefix + "/data: " + received.reason);
    }
    return out;
}

/// What the database returned about what it stored.
void Backend::describe(Arrived& arrived) {
    store::Envelope envelope;
    std::string reason;
    if (!m_reader.read(arrived.received.text, envelope, reason)) {
        m_print(arrived.received.prefix + ": no usable envelope: " + reason);
    }
    arrived.id = envelope.messageId;
    arrived.report = envelope.report + " #" + std::to_string(envelope.sequence);
    arrived.collections = envelope.collections;
    arrived.samples = envelope.samples.size() + envelope.refusedInAll;
}

/// Which of them may be acknowledged: what is stored, known, or kept as unusable.
std::vector<bool> Backend::store(std::vector<Arrived>& batch) {
    std::vector<bool> done(batch.size(), true);
    for (std::size_t i = 0; i < batch.size(); ++i) {
        done[i] = !batch[i].received.reason.empty() || append(batch[i].received.text);
    }
    if (m_settings.database == nullptr) {
        for (Arrived& one : batch) {
            describe(one);
        }
        return done;
    }
    if (batch.empty()) {
        return done;
    }
    std::vector<store::Received> received;
    received.reserve(batch.size());
    for (Arrived& one : batch) {
        received.push_back(std::move(one.received));
    }
    const auto results = m_settings.database->put(received);
    for (std::size_t i = 0; i < batch.size(); ++i) {
        batch[i].received = std::move(received[i]);
    }
    const auto isFailed = [](const store::Stored& one) { return one.outcome == store::Outcome::Failed; };
    m_settings.totals->databaseFailures += std::any_of(results.begin(), results.end(), isFailed) ? 1 : 0;
    for (std::size_t i = 0; i < results.size(); ++i) {
        const store::Stored& result = results[i];
        m_settings.totals->unusable += result.refused + (result.outcome == store::Outcome::Unusable ? 1 : 0);
        batch[i].id = result.messageId;
        batch[i].report = result.report;
        batch[i].known = result.outcome == store::Outcome::Repeated;
        batch[i].collections = result.collections;
        batch[i].samples = result.samples + result.refused;
        if (result.outcome == store::Outcome::Failed) {
            done[i] = false;
            describe(batch[i]);  // for the result's messageId
            noteDatabaseFailed(result.reason);
        } else if (result.outcome == store::Outcome::Unusable) {
            m_print(batch[i].received.prefix + ": kept aside: " + result.reason);
        } else if (result.refused != 0) {
            m_print(batch[i].received.prefix + ' ' + result.report + ": " + std::to_string(result.refused) +
                    " samples kept aside: " + result.reason);
        }
    }
    return done;
}

void Backend::noteDatabaseFailed(const std::string& reason) {
    if (!std::exchange(m_databaseFailed, true)) {
        m_print("the database does not take what comes: " + reason);
    }
}

std::vector<Outgoing> Backend::retry() {
    try {
        m_settings.database->sql().query("SELECT 1");
    } catch (const std::exception&) {
        return {};
    }
    m_databaseFailed = false;
    m_print("the database is back");
    // What could not be written, and those that another instance may have taken over meanwhile.
    std::vector<std::string> prefixes;
    for (const auto& [prefix, vehicle] : m_vehicles) {
        if (vehicle.online || vehicle.isUnwritten) {
            prefixes.push_back(prefix);
        }
    }
    if (!notePresences(prefixes)) {
        return {};
    }
    auto out = m_settings.open ? openAll() : std::vector<Outgoing>{};
    for (auto& [prefix, vehicle] : m_vehicles) {
        if (std::exchange(vehicle.asks, false)) {
            auto answers = onRequest(prefix);
            std::move(answers.begin(), answers.end(), std::back_inserter(out));
        }
    }
    return out;
}

std::size_t Backend::import(const std::string& prefix, const std::vector<std::string>& lines) {
    std::vector<Arrived> batch;
    for (const std::string& line : lines) {
        Arrived one;
        one.received.prefix = prefix;
        one.received.receivedMs = nowMs();
        one.received.wireBytes = line.size();
        one.received.text = line;
        Value content;
        if (line.starts_with("{\"envelope\"")) {  // as vlm-spool writes it
            if (!kyo::Json::Reader().parse(line, content, false) || !content.isObject() ||
                !member(content, "envelope").isObject()) {
                break;
            }
            one.received.text = compactText(content["envelope"]);
            one.received.spoolNumber = compactText(member(content, "spool"));
        }
        batch.push_back(std::move(one));
    }
    const std::vector<bool> stored = store(batch);
    std::size_t good = 0;
    while (good < batch.size() && stored[good] && !batch[good].id.empty()) {
        onEnvelope(batch[good], true);
        ++good;
    }
    return good;
}

std::vector<Outgoing> Backend::setOpen(bool open) {
    m_settings.open = open;
    m_print(open ? "channel opened" : "channel closed");
    return openAll();
}

/// A control message to all that are online; it opens when the channel is open.
std::vector<Outgoing> Backend::openAll() {
    std::vector<Outgoing> out;
    for (const auto& [prefix, vehicle] : m_vehicles) {
        if (vehicle.online && vehicle.isOurs) {
            out.push_back(masterControl(prefix, vehicle, 0, m_settings.open));
        }
    }
    return out;
}

/// Returns a whole message: each one replaces the vehicle's earlier state.
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

/// The presence in all of these messages.
std::vector<Outgoing> Backend::onStatuses(const std::vector<Message>& messages) {
    std::set<std::string> prefixes;
    for (const Message& message : messages) {
        Value status;
        if (message.topic != "/status" || !readMessage(message, status)) {
            continue;
        }
        Vehicle& vehicle = m_vehicles[message.prefix];
        vehicle.online = textOf(member(status, "state")) == "online";
        vehicle.isUnwritten = true;
        vehicle.offered.clear();
        const Value& types = member(status, "offeredDataTypes");
        for (kyo::Json::ArrayIndex i = 0; types.isArray() && i < types.size(); ++i) {
            vehicle.offered.push_back(textOf(types[i]));
        }
        vehicle.catalog = textOf(member(status, "serverName"));
        m_print(message.prefix + (vehicle.online ? " online: " : " offline: ") + vehicle.catalog +
                ", offers " + compactText(types));
        prefixes.insert(message.prefix);
    }
    notePresences({prefixes.begin(), prefixes.end()});
    std::vector<Outgoing> out;
    for (const std::string& prefix : prefixes) {
        Vehicle& vehicle = m_vehicles[prefix];
        vehicle.isChecked = vehicle.online && vehicle.isOurs && m_settings.database != nullptr;
        if (vehicle.isChecked) {
            m_checks.emplace_back(Clock::now() + m_settings.returnPause, prefix);
        }
        if (vehicle.online && vehicle.isOurs) {
            // After each connection a vehicle needs an opening message before it sends.
            out.push_back(masterControl(prefix, vehicle, 0, m_settings.open));
        }
    }
    return out;
}

/// False when the database fails.
bool Backend::notePresences(const std::vector<std::string>& prefixes) {
    std::vector<store::Presence> all;
    for (const std::string& prefix : prefixes) {
        Vehicle& vehicle = m_vehicles[prefix];
        vehicle.isOurs = isAlone();
        all.push_back({prefix, vehicle.online, vehicle.catalog, false});
    }
    if (m_settings.database == nullptr) {
        return true;
    }
    for (std::size_t at = 0; at < all.size(); at += kAtOnce) {
        const auto some = std::span(all).subspan(at, std::min(kAtOnce, all.size() - at));
        if (!m_settings.database->setPresence(some, m_settings.instance, nowMs())) {
            noteDatabaseFailed("presence cannot be written");
            return false;
        }
        for (const store::Presence& one : some) {
            Vehicle& vehicle = m_vehicles[one.prefix];
            vehicle.isOurs = isAlone() || one.isOurs;
            vehicle.isUnwritten = false;
        }
    }
    return true;
}

/// Vehicles of an instance that is gone are opened here, as their last messages may have had no answer.
void Backend::renewLease(Clock::time_point now, std::vector<Outgoing>& out) {
    std::vector<std::string> taken;
    bool inTime = true;
    if (!m_settings.database->transact([&](store::Sql& sql) {
            inTime = store::renewInstance(sql, m_settings.instance, kLease);
            taken = store::takeOver(sql, m_settings.instance, kMostTaken);
            if (!inTime) {
                taken = store::leasesOf(sql, m_settings.instance);
            }
        })) {
        noteDatabaseFailed("the lease cannot be renewed");
        return;
    }
    if (!inTime) {
        for (auto& [prefix, vehicle] : m_vehicles) {
            vehicle.isOurs = false;
        }
    }
    for (const std::string& prefix : taken) {
        Vehicle& vehicle = m_vehicles[prefix];
        vehicle.isOurs = true;
        if (!vehicle.online) {
            continue;
        }
        m_print(prefix + " is taken over");
        out.push_back(masterControl(prefix, vehicle, 0, m_settings.open));
        vehicle.isChecked = true;
        m_checks.emplace_back(now + m_settings.returnPause, prefix);
        if (now - vehicle.asked < 2 * kLease && vehicle.asked != Clock::time_point{}) {
            auto answers = onRequest(prefix);
            std::move(answers.begin(), answers.end(), std::back_inserter(out));
        }
    }
}

void Backend::leave() {
    if (!isAlone()) {
        m_settings.database->transact(
            [this](store::Sql& sql) { store::endInstance(sql, m_settings.instance); });
    }
}

/// What another instance was asked for.
void Backend::noteChanges(std::vector<Outgoing>& out) {
    std::int64_t changes = m_changes;
    if (m_settings.database->transact(
            [&changes](store::Sql& sql) { changes = store::changeCounts(sql).desired; }) &&
        changes != m_changes) {
        m_changes = changes;
        auto more = onConfigurationsChanged();
        std::move(more.begin(), more.end(), std::back_inserter(out));
    }
}

Outgoing Backend::configurationMessage(const std::string& prefix,
                                       const store::Configuration& configuration) const {
    return {prefix + "/config/response",
            compactText(kyo::orx::configurationAnswer(configuration.recordId, configuration.text)),
            {},
            std::nullopt};
}

/// Sends those of the vehicles what they are to have and, as far as is known, do not have. False when the
/// database fails.
bool Backend::sendOpen(const std::vector<std::string>& prefixes, std::vector<Outgoing>& out) {
    std::vector<store::Due> found;
    const bool done = m_settings.database->transact([&](store::Sql& sql) {
        for (const std::string& prefix : prefixes) {
            if (auto due = store::openOf(sql, store::vehicleName(prefix))) {
                store::noteSent(sql, *due, nowMs());
                found.push_back(std::move(*due));
            }
        }
    });
    if (!done) {
        noteDatabaseFailed("configurations cannot be read");
        return false;
    }
    for (const store::Due& due : found) {
        m_print(due.prefix + " gets the configuration " + due.configuration.recordId);
        out.push_back(configurationMessage(due.prefix, due.configuration));
    }
    return true;
}

std::vector<Outgoing> Backend::onConfigurationsChanged() {
    std::vector<store::Due> found;
    if (m_settings.database->transact([&found](store::Sql& sql) { found = store::unsent(sql); })) {
        m_unsent.clear();
        for (const store::Due& due : found) {
            m_unsent.push_back(due.prefix);
        }
    } else {
        noteDatabaseFailed("assignments cannot be read");
    }
    return tick(Clock::now());
}

std::vector<Outgoing> Backend::tick(Clock::time_point now) {
    std::vector<Outgoing> out;
    if (!isAlone() && !m_databaseFailed && now >= m_nextRenewal) {
        m_nextRenewal = now + kLease / 3;
        renewLease(now, out);
    }
    if (!isAlone() && !m_databaseFailed && now >= m_nextCheck) {
        m_nextCheck = now + kCheckPeriod;
        noteChanges(out);
    }
    std::vector<std::string> prefixes;
    for (; !m_unsent.empty() && prefixes.size() < kAtOnce; m_unsent.pop_front()) {
        const auto vehicle = m_vehicles.find(m_unsent.front());
        if (vehicle != m_vehicles.end() && vehicle->second.online && vehicle->second.isOurs &&
            !vehicle->second.isChecked) {
            prefixes.push_back(m_unsent.front());
        }
    }
    for (; !m_checks.empty() && m_checks.front().first <= now && prefixes.size() < kAtOnce;
         m_checks.pop_front()) {
        if (std::exchange(m_vehicles[m_checks.front().second].isChecked, false)) {
            prefixes.push_back(m_checks.front().second);
        }
    }
    if (!prefixes.empty() && !sendOpen(prefixes, out)) {
        for (const std::string& prefix : prefixes) {
            m_vehicles[prefix].isChecked = true;
            m_checks.emplace_back(now + m_settings.returnPause, prefix);
        }
    }
    return out;
}

std::optional<Backend::Clock::time_point> Backend::nextTick() const {
    if (!m_unsent.empty()) {
        return Clock::time_point{};
    }
    auto next = m_checks.empty() ? std::nullopt : std::optional(m_checks.front().first);
    if (!isAlone() && !m_databaseFailed) {
        const auto ours = std::min(m_nextRenewal, m_nextCheck);
        next = next ? std::min(*next, ours) : ours;
    }
    return next;
}

std::vector<Outgoing> Backend::onRequest(const std::string& prefix) {
    if (m_settings.database != nullptr) {
        Vehicle& vehicle = m_vehicles[prefix];
        if (!isAlone() && !vehicle.isOurs) {
            vehicle.asked = Clock::now();
            return {};
        }
        std::optional<store::Due> due;
        if (!m_settings.database->transact([&](store::Sql& sql) {
                due = store::desiredOf(sql, store::vehicleName(prefix));
                if (due) {
                    store::noteSent(sql, *due, nowMs());
                }
            })) {
            vehicle.asks = true;
            noteDatabaseFailed("configurations cannot be read");
            return {};
        }
        if (due) {
            vehicle.isChecked = false;
            m_print(prefix + " asks for a configuration: " + due->configuration.recordId);
            return {configurationMessage(prefix, due->configuration)};
        }
    }
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

std::vector<Outgoing> Backend::onEnvelope(const Arrived& arrived, bool stored) {
    const std::string& prefix = arrived.received.prefix;
    const std::string& id = arrived.id;
    Vehicle& vehicle = m_vehicles[prefix];
    const bool again = arrived.known || std::find(vehicle.recentIds.begin(), vehicle.recentIds.end(), id) !=
                                            vehicle.recentIds.end();
    if (!again && stored) {
        vehicle.recentIds.push_back(id);
        if (vehicle.recentIds.size() > kRecentIds) {
            vehicle.recentIds.pop_front();
        }
    }
    int result = m_settings.results[std::min(vehicle.answered, m_settings.results.size() - 1)];
    ++vehicle.answered;
    if (!stored) {
        result = 1;  // what is not stored is not delivered
    }
    store::Totals& totals = *m_settings.totals;
    ++totals.envelopes;
    totals.repeated += again ? 1 : 0;
    totals.samples += arrived.samples;
    totals.bytes += arrived.received.wireBytes;

    std::string line = prefix + ' ' + arrived.report + ": " + std::to_string(arrived.collections) +
                       " collections, " + std::to_string(arrived.samples) + " samples, " +
                       std::to_string(arrived.received.wireBytes) + " bytes";
    const std::string& number = arrived.received.spoolNumber;
    line += number.empty() ? "" : ", number " + number + " of the spool";
    line += again ? ", again" : "";
    line += result == kSilence ? ", no answer" : ", result " + std::to_string(result);
    m_print(line);

    if (result == kSilence) {
        return {};
    }
    std::vector<Outgoing> out{masterControl(prefix, vehicle, result, false, id)};
    out.back().after = m_settings.answerAfter;
    if (result != 0 && m_settings.open && (stored || !m_databaseFailed)) {
        out.push_back(masterControl(prefix, vehicle, 0, true));
        out.back().after = m_settings.answerAfter + m_settings.reopenAfter;
    }
    return out;
}

bool Backend::append(const std::string& envelope) {
    if (m_settings.store.empty()) {
        return true;
    }
    std::ofstream file(m_settings.store, std::ios::app | std::ios::binary);
    // One line, whatever white space is between the members.
    std::replace_copy(envelope.begin(), envelope.end(), std::ostreambuf_iterator<char>(file), '\n', ' ');
    file << '\n';
    file.flush();
    if (!file) {
        m_print(m_settings.store.string() + " cannot be written: " + std::strerror(errno));
        return false;
    }
    return true;
}

}  // namespace vlmBackend
