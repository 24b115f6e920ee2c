#pragma once
/// Serves a status as metrics over HTTP.
#include <functional>
#include <string>

#include "kyo/Json.h"

namespace tools {

/// Reads the status; an empty object when there is no answer. One call at a time.
using ReadStatus = std::function<kyo::Json::Value()>;

/// Answers GET /metrics at "address:port" until the process ends; port 0 takes a free one. Prints the address
/// once it listens. Returns false with a reason when it cannot listen.
bool exportMetrics(const std::string& listen, const ReadStatus& read, std::string& error);

}  // namespace tools
