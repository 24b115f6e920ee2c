#pragma once
#include <cstdint>

namespace ara::exec {

enum class ApplicationState : std::uint8_t { kInitializing, kRunning, kTerminating };

/// Reports the application's state to execution management.
class ApplicationClient {
  public:
    ApplicationClient();
    ~ApplicationClient();
    ApplicationClient(const ApplicationClient&) = delete;
    ApplicationClient& operator=(const ApplicationClient&) = delete;

    /// Does not block. Without an execution manager the report is only logged.
    void ReportApplicationState(ApplicationState state);
};

}  // namespace ara::exec
