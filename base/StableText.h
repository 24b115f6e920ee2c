#pragma once
#include <string>

#include "kyo/Json.h"

namespace vlmProd {

/// Returns the same text at an address that stays valid until the process ends, so that records can refer to
/// it instead of copying it. For the few names in a configuration (services, collectors). Takes a lock: not
/// for the sample path.
kyo::Json::StaticString stableText(const std::string& text);

}  // namespace vlmProd
