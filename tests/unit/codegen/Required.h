#pragma once
/// Reads the tables in required/: what every event of every service must have, independent of its
/// description.
#include "tests/support/Test.h"

namespace vlmTest {

inline std::vector<std::string> splitText(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) {
        if (!part.empty()) {
            parts.push_back(part);
        }
    }
    return parts;
}

struct RequiredEvent {
    std::string adapter;
    std::string registryKey;  ///< "-" if the registry does not create the adapter
    std::string nameSpace;
    std::string event;
    std::string key;                   ///< "-" for an unkeyed event
    std::vector<int> writers;          ///< key values
    std::size_t memberCount = 0;       ///< keyed: distinct members that the writers add
    std::vector<std::string> members;  ///< unkeyed: all, in order
};

inline std::vector<std::vector<std::string>> readRequired(const std::string& table) {
    const std::string path = std::string(VLM_REQUIRED_DIR) + "/" + table + ".psv";
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    std::vector<std::vector<std::string>> rows;
    for (std::string line; std::getline(file, line);) {
        if (!line.empty() && line[0] != '#') {
            rows.push_back(splitText(line, '|'));
        }
    }
    return rows;
}

inline std::vector<RequiredEvent> requiredEvents() {
    std::vector<RequiredEvent> events;
    for (const auto& row : readRequired("events")) {
        RequiredEvent event{row.at(0), row.at(1), row.at(2), row.at(3), row.at(4), {}, 0, {}};
        if (event.key == "-") {
            event.members = splitText(row.at(6), ' ');
        } else {
            event.memberCount = std::stoul(row.at(6));
            for (const std::string& part : splitText(row.at(5), ' ')) {
                const auto dash = part.find('-');
                const int last = std::stoi(dash == std::string::npos ? part : part.substr(dash + 1));
                for (int value = std::stoi(part); value <= last; ++value) {
                    event.writers.push_back(value);
                }
            }
        }
        events.push_back(std::move(event));
    }
    return events;
}

}  // namespace vlmTest
