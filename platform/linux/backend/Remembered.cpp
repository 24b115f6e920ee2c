#include "backend/Remembered.h"

#include <algorithm>
#include <fstream>
#include <utility>

namespace kyo::orx {

namespace {

namespace fs = std::filesystem;

/// The eight that Transport lets wait, and the one that the application reads. Each may be large.
constexpr std::size_t kMostUnjudged = 9;

std::optional<Json::Value> readObject(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    Json::Value content;
    if (!stream || !Json::Reader().parse(stream, content, false) || !content.isObject()) {
        return std::nullopt;
    }
    return content;
}

int writeObject(SpoolDisk& disk, const fs::path& file, const Json::Value& content) {
    fs::path made = file;
    made += ".new";
    int code = disk.write(made, Json::FastWriter().write(content) + '\n');
    code = code == 0 ? disk.rename(made, file) : code;
    return code == 0 ? disk.syncFolder(file.parent_path()) : code;
}

bool isRecord(const Json::Value& record) {
    return record.isObject() && record["recordId"].isString() && record["recordBody"].isString();
}

/// Whether the application can read a record, and so gives its verdict: it converts numbers.
bool isJudged(const Json::Value& record) {
    return record.isObject() && record["recordId"].isConvertibleTo(Json::stringValue) &&
           record["recordBody"].isConvertibleTo(Json::stringValue);
}

}  // namespace

std::optional<RememberedControl> readRememberedControl(const fs::path& folder) {
    const auto content = readObject(folder / "backend.json");
    if (!content) {
        return std::nullopt;
    }
    RememberedControl control;
    const Json::Value& types = (*content)["permittedDataType"];
    if (!(*content)["eventTicket"].isString() || !types.isArray() || !(*content)["namesEnvelopes"].isBool()) {
        return std::nullopt;
    }
    for (const Json::Value& type : types) {
        if (!type.isString()) {
            return std::nullopt;
        }
        control.permitted.push_back(type.asString());
    }
    control.ticket = (*content)["eventTicket"].asString();
    control.namesEnvelopes = (*content)["namesEnvelopes"].asBool();
    return control;
}

int writeRememberedControl(SpoolDisk& disk, const fs::path& folder, const RememberedControl& control) {
    Json::Value content(Json::objectValue);
    content["eventTicket"] = control.ticket;
    content["namesEnvelopes"] = control.namesEnvelopes;
    Json::Value& types = content["permittedDataType"] = Json::Value(Json::arrayValue);
    for (const std::string& type : control.permitted) {
        types.append(type);
    }
    return writeObject(disk, folder / "backend.json", content);
}

RememberedConfiguration::RememberedConfiguration(fs::path folder, SpoolDisk& disk,
                                                 std::optional<std::chrono::seconds> after)
    : m_folder(std::move(folder)), m_disk(disk), m_after(after) {}

void RememberedConfiguration::requested(Clock::time_point now) {
    if (m_after && !m_standInAt && !m_isAnswered) {
        m_standInAt = now + *m_after;
    }
}

bool RememberedConfiguration::isRepeated(const Json::Value& answer) const {
    return m_last && answer.isArray() && !answer.empty() && isRecord(answer[0]) && isRecord(*m_last) &&
           (*m_last)["recordId"] == answer[0]["recordId"] &&
           (*m_last)["recordBody"] == answer[0]["recordBody"];
}

void RememberedConfiguration::passedOn(Json::Value answer) {
    if (!answer.isArray() || answer.empty()) {
        return;  // "not yet": the application decides
    }
    m_isAnswered = true;
    note(std::move(answer[0]));
}

void RememberedConfiguration::note(Json::Value record) {
    if (!isJudged(record)) {
        return;
    }
    auto noted = std::make_shared<const Json::Value>(std::move(record));
    if (isRecord(*noted)) {
        m_last = noted;
    }
    if (m_after) {
        m_unjudged.push_back(std::move(noted));
    }
    if (m_unjudged.size() > kMostUnjudged) {
        m_unjudged.pop_front();
    }
}

std::optional<Json::Value> RememberedConfiguration::standIn(Clock::time_point now) {
    if (!m_standInAt || m_isAnswered || m_hasStoodIn || now < *m_standInAt) {
        return std::nullopt;
    }
    auto record = readObject(file());
    if (!record || !isRecord(*record)) {
        m_hasStoodIn = true;
        return std::nullopt;
    }
    Json::Value answer(Json::arrayValue);
    answer.append(std::move(*record));
    return answer;
}

void RememberedConfiguration::stoodIn(Json::Value answer, Clock::time_point now) {
    m_hasStoodIn = true;
    m_nextRequest = now + kBetweenRequests;
    note(std::move(answer[0]));
}

bool RememberedConfiguration::isToAsk(Clock::time_point now) {
    if (m_isAnswered || !m_last || now < m_nextRequest) {
        return false;
    }
    m_nextRequest = now + kBetweenRequests;
    return true;
}

std::optional<RememberedConfiguration::Clock::time_point> RememberedConfiguration::wakeAt() const {
    if (m_isAnswered) {
        return std::nullopt;
    }
    return m_hasStoodIn && m_last ? std::optional(m_nextRequest) : m_standInAt;
}

RememberedConfiguration::Record RememberedConfiguration::judged(const std::string& recordId,
                                                                bool isAccepted) {
    const auto found = std::find_if(m_unjudged.begin(), m_unjudged.end(), [&recordId](const Record& record) {
        return (*record)["recordId"].asString() == recordId;
    });
    if (found == m_unjudged.end()) {
        return nullptr;
    }
    Record record = *found;
    m_unjudged.erase(m_unjudged.begin(), found + 1);
    return isAccepted && isRecord(*record) ? record : nullptr;
}

int RememberedConfiguration::keep(const Json::Value& record) const {
    const auto before = readObject(file());
    return before && *before == record ? 0 : writeObject(m_disk, file(), record);
}

}  // namespace kyo::orx
