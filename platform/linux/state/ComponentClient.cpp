#include "ara/stm/component_client.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string_view>
#include <utility>

#include "kyo/Status.h"
#include "machine/Manifest.h"
#include "state/StateServer.h"

namespace ara::stm {

namespace {

std::string_view nameOf(ComponentClientReturnType result) {
    switch (result) {
        case ComponentClientReturnType::kSuccess:
            return "success";
        case ComponentClientReturnType::kGeneralError:
            return "generalError";
        case ComponentClientReturnType::kInvalid:
            break;
    }
    return "invalid";
}

class SocketClient : public ComponentClient {
  public:
    explicit SocketClient(ComponentStateCallback callback)
        : m_callback(std::move(callback)),
          m_server(machine::stateSocketPath(), [this](std::uint32_t requestId, const std::string& state) {
              m_callback(*this, requestId, state);
          }) {}

    ComponentClientReturnType ConfirmComponentState(std::uint32_t requestId, const ComponentState& state,
                                                    ComponentClientReturnType result) const override {
        switch (m_server.confirm(requestId, state, nameOf(result))) {
            case StateServer::Confirmation::Sent:
                return ComponentClientReturnType::kSuccess;
            case StateServer::Confirmation::RequesterGone:
                return ComponentClientReturnType::kGeneralError;
            case StateServer::Confirmation::NotAsked:
                break;
        }
        return ComponentClientReturnType::kInvalid;
    }

  private:
    const ComponentStateCallback m_callback;
    mutable StateServer m_server;  ///< last: its thread uses the other members; synchronises itself
};

/// The figures of the process that a long test run watches.
kyo::Json::Value processStatus() {
    kyo::Json::Value status(kyo::Json::objectValue);
    status["pid"] = ::getpid();
    if (std::FILE* const file = std::fopen("/proc/self/statm", "re"); file != nullptr) {
        long size = 0;
        long resident = 0;
        // NOLINTNEXTLINE(cert-err34-c): the kernel's numbers fit
        if (std::fscanf(file, "%ld %ld", &size, &resident) == 2) {
            status["memoryKiB"] = static_cast<kyo::Json::Int64>(resident * (::sysconf(_SC_PAGESIZE) / 1024));
        }
        std::fclose(file);
    }
    const auto countOf = [](const char* folder) {
        std::error_code ignored;
        kyo::Json::Int64 count = 0;
        for (std::filesystem::directory_iterator at(folder, ignored), end; at != end; at.increment(ignored)) {
            ++count;
        }
        return count;
    };
    status["threads"] = countOf("/proc/self/task");
    status["descriptors"] = countOf("/proc/self/fd");
    return status;
}

}  // namespace

std::unique_ptr<ComponentClient> createComponentClient(const std::string& componentName,
                                                       ComponentStateCallback callback) {
    const auto begin = std::chrono::steady_clock::now();
    kyo::Status::gauge("process", [componentName, begin] {
        kyo::Json::Value status = processStatus();
        status["name"] = componentName;
        status["uptimeSeconds"] = static_cast<kyo::Json::Int64>(
            std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin)
                .count());
        return status;
    });
    return std::make_unique<SocketClient>(std::move(callback));
}

}  // namespace ara::stm
