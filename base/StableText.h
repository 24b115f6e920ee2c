#pragma once
#include <string>

#include "kyo/Json.h"

namespace vlmProd {

/// The same text at an address that lives until the process ends, so that every record can refer to it
/// instead of holding a copy. For the few names that a configuration brings (services, collectors); takes a
/// lock, so not for the sample path.
kyo::Json::StaticString stableText(const std::string& text);

}  // namespace vlmProd
