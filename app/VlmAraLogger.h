#pragma once
#include <string>

#include "kyo/Log.h"

namespace vlmProd {

/// Forwards every log line to the ara::log stream of its level. Created by start-up and never destroyed: any
/// thread may log until the process ends.
class VlmAraLogger : public kyo::ProductLogger {
  public:
    VlmAraLogger();
    ~VlmAraLogger() override;
    void logData(std::string message, kyo::LogLevel level) override;
};

}  // namespace vlmProd
