#pragma once
#include <string>

#include "kyo/Log.h"

namespace vlmProd {

/// Forwards every finished log line to ara::log, on a stream chosen by its level. Created by start-up and
/// never destroyed: any thread may log until the process has ended.
class VlmAraLogger : public kyo::ProductLogger {
  public:
    VlmAraLogger();
    ~VlmAraLogger() override;
    void logData(std::string message, kyo::LogLevel level) override;
};

}  // namespace vlmProd
