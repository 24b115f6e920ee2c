#pragma once
/// Formats a status snapshot for people.
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "kyo/Json.h"

namespace tools {

/// The snapshot's values by their dotted names.
std::map<std::string, kyo::Json::Value> flatten(const kyo::Json::Value& snapshot);

/// True for what kyo::Histogram shows.
bool isHistogram(const kyo::Json::Value& value);

/// A table with one line per value, in groups, and the losses at the end.
std::string statusTable(const kyo::Json::Value& snapshot);

/// One line with the essentials; rates are computed between calls.
class LiveLine {
  public:
    std::string next(const kyo::Json::Value& snapshot, std::chrono::steady_clock::time_point now);

  private:
    bool m_any = false;
    double m_samples = 0;
    std::chrono::steady_clock::time_point m_when;
};

}  // namespace tools
