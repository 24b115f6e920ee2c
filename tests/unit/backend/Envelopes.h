#pragma once
/// Envelopes as vehicles send them.
#include <string>

#include "json/JsonFields.h"
#include "kyo/Json.h"

namespace vlmTest {

/// `samples`: the text of the collection's "samples".
inline std::string envelopeText(const std::string& messageId, const std::string& samples,
                                const std::string& service = "GNSSProxy",
                                const std::string& resource = "positions") {
    kyo::Json::Value envelope;
    envelope["messageId"] = messageId;
    envelope["timestamp"] = 1'700'000'000;
    envelope["orxClientDataReport"] =
        R"({"applicationName":"Bench","functionId":"21","reportName":"Trip","sequenceNumber":3,)"
        R"("signalCollections":[{"index":1,"resourceName":")" +
        resource + R"(","samples":)" + samples + R"(,"serviceName":")" + service + R"("}]})";
    return vlmProd::compactText(envelope);
}

inline std::string positionText(long long ms, double latitude, double longitude) {
    return R"({"propertyValuePairs":{"latitude":)" + std::to_string(latitude) + R"(,"longitude":)" +
           std::to_string(longitude) + R"(,"type":1},"timestamp":")" + std::to_string(ms) + R"("})";
}

}  // namespace vlmTest
