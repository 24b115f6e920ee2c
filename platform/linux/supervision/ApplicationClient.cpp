#include "ara/exec/application_client.h"

#include <cstring>

#include "log/PlatformLog.h"
#include "supervision/ServiceManager.h"

namespace ara::exec {

namespace {

const char* nameOf(ApplicationState state) {
    switch (state) {
        case ApplicationState::kInitializing:
            return "kInitializing";
        case ApplicationState::kRunning:
            return "kRunning";
        case ApplicationState::kTerminating:
            return "kTerminating";
    }
    return "unknown";
}

const char* notificationOf(ApplicationState state) {
    switch (state) {
        case ApplicationState::kInitializing:
            return "STATUS=Initializing";
        case ApplicationState::kRunning:
            return "READY=1\nSTATUS=Running";
        case ApplicationState::kTerminating:
            return "STOPPING=1\nSTATUS=Terminating";
    }
    return "STATUS=Unknown state";
}

}  // namespace

ApplicationClient::ApplicationClient() = default;

ApplicationClient::~ApplicationClient() = default;

void ApplicationClient::ReportApplicationState(ApplicationState state) {
    const int sent = kyo::notifyServiceManager(notificationOf(state));
    if (sent < 0) {
        KYO_LOG(
            3, "The service manager cannot be notified of " << nameOf(state) << ": " << std::strerror(-sent));
    } else {
        KYO_LOG(7, "Application state "
                       << nameOf(state)
                       << (sent > 0 ? " reported to the service manager" : ", no service manager"));
    }
}

}  // namespace ara::exec
