#pragma once
/// What a bug report needs, in one JSON file.
#include <string>

#include "kyo/Json.h"

namespace tools {

/// The status, the versions of this program, of the packages and of the system, the digests and sizes of the
/// configuration files that vlmmaster uses, or would use, and the last log lines about faults and starts. No
/// contents of configurations, samples or reports: log lines end before the first brace or bracket, and what
/// they quote is left out.
kyo::Json::Value bundle(const kyo::Json::Value& status);

/// False when VLM_MACHINE_MANIFEST names a manifest that cannot be used; machine::manifest() then ends the
/// process.
bool namedManifestIsGood();

}  // namespace tools
