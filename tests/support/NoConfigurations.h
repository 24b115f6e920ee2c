#pragma once
#include "report/ConfigurationReceiver.h"

namespace vlmTest {

/// For tests of the backend link without configurations.
struct NoConfigurations : vlmProd::ConfigurationReceiver {
    void setRequestFunction(std::function<void()> /*request*/) override {}
    void startConfigRequestRetry() override {}
    void stopConfigRequestRetry() override {}
    void ConfigResponseCallback(kyo::Json::Value /*response*/) override {}
    void setOutcomeFunction(OutcomeFunction /*outcome*/) override {}
};

}  // namespace vlmTest
