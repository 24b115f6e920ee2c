#include "app/VlmAraLogger.h"

#include <utility>

#include "ara/log/logging.h"

namespace vlmProd {

VlmAraLogger::VlmAraLogger() {
    ara::log::InitLogging("VLM", "Velmora", ara::log::LogLevel::kVerbose,
                          ara::log::LogMode::kRemote | ara::log::LogMode::kConsole, "");
}

VlmAraLogger::~VlmAraLogger() = default;

void VlmAraLogger::logData(std::string message, kyo::LogLevel level) {
    switch (level) {
        case 2:
            ara::log::LogFatal() << std::move(message);
            break;
        case 3:
            ara::log::LogError() << std::move(message);
            break;
        case 4:
            ara::log::LogWarn() << std::move(message);
            break;
        case 6:
        case 7:
            ara::log::LogDebug() << std::move(message);
            break;
        default:  // also level 1: its only line reports a malformed file, and operators know it as
                  // information
            ara::log::LogInfo() << std::move(message);
            break;
    }
}

}  // namespace vlmProd
