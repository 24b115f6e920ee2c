#pragma once
#include <string>

#include "kyo/Json.h"

namespace vlmTest {

/// A record as a resource completes it.
inline kyo::Json::Value recordAt(unsigned long long timestamp, int value = 0) {
    kyo::Json::Value record;
    record["timestamp"] = static_cast<kyo::Json::UInt64>(timestamp);
    record["serviceName"] = "GNSSProxy";
    record["resName"] = "positions";
    record["type"] = 1U;
    record["collectorName"] = "position";
    record["index"] = 1;
    record["speed2D"] = value;
    return record;
}

}  // namespace vlmTest
