#include "backend/Remembered.h"

#include <fstream>
#include <utility>

namespace kyo::orx {

namespace {

namespace fs = std::filesystem;

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

bool RememberedConfiguration::answered(const Json::Value& answer) {
    if (!answer.isArray() || answer.empty()) {
        return true;  // "not yet": the application decides
    }
    m_isAnswered = true;
    if (isRecord(answer[0])) {
        if (isRecord(m_passedOn) && m_passedOn["recordId"] == answer[0]["recordId"] &&
            m_passedOn["recordBody"] == answer[0]["recordBody"]) {
            return false;
        }
        m_passedOn = answer[0];
    }
    return true;
}

std::optional<Json::Value> RememberedConfiguration::standIn(Clock::time_point now) {
    if (!m_standInAt || m_isAnswered || m_hasStoodIn || now < *m_standInAt) {
        return std::nullopt;
    }
    m_hasStoodIn = true;
    const auto record = readObject(file());
    if (!record || !isRecord(*record)) {
        return std::nullopt;
    }
    m_passedOn = *record;
    m_nextRequest = now + kBetweenRequests;
    Json::Value answer(Json::arrayValue);
    answer.append(*record);
    return answer;
}

bool RememberedConfiguration::isToAsk(Clock::time_point now) {
    if (m_isAnswered || !isRecord(m_passedOn) || now < m_nextRequest) {
        return false;
    }
    m_nextRequest = now + kBetweenRequests;
    return true;
}

std::optional<RememberedConfiguration::Clock::time_point> RememberedConfiguration::wakeAt() const {
    if (m_isAnswered) {
        return std::nullopt;
    }
    return m_hasStoodIn && isRecord(m_passedOn) ? std::optional(m_nextRequest) : m_standInAt;
}

int RememberedConfiguration::accepted(const std::string& recordId) {
    if (!m_after || !isRecord(m_passedOn) || m_passedOn["recordId"].asString() != recordId) {
        return 0;
    }
    const auto before = readObject(file());
    return before && *before == m_passedOn ? 0 : writeObject(m_disk, file(), m_passedOn);
}

}  // namespace kyo::orx
