#pragma once
/// What a bug report needs, in one JSON file.
#include <string>

#include "kyo/Json.h"

namespace tools {

/// The status, the versions of this program, of the packages and of the system, the digests and sizes of the
/// configuration files that the running vlmmaster uses, and the last log lines about faults. No contents of
/// configurations, samples or reports: log lines end before the first brace or quotation mark.
kyo::Json::Value bundle(const kyo::Json::Value& status);

/// The last lines of a log text about faults, without what they quote. For tests.
kyo::Json::Value faultLines(const std::string& log);

}  // namespace tools
