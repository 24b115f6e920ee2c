// ara and the middleware's component: log lines go to standard error, everything else has no effect.
#include <iostream>

#include "ac/com/runtime/component.h"
#include "ara/exec/application_client.h"
#include "ara/log/logging.h"
#include "ara/phm/supervision.h"
#include "ara/stm/component_client.h"

namespace ara::log {

LogStream::~LogStream() {
    if (m_level != LogLevel::kOff) {
        std::cerr << m_text << '\n';
    }
}

void InitLogging(std::string, std::string, LogLevel, LogMode, std::string) {}

LogStream LogFatal() {
    return LogStream(LogLevel::kFatal);
}
LogStream LogError() {
    return LogStream(LogLevel::kError);
}
LogStream LogWarn() {
    return LogStream(LogLevel::kWarn);
}
LogStream LogInfo() {
    return LogStream(LogLevel::kInfo);
}
LogStream LogDebug() {
    return LogStream(LogLevel::kDebug);
}
LogStream LogVerbose() {
    return LogStream(LogLevel::kVerbose);
}

}  // namespace ara::log

namespace ara::exec {

ApplicationClient::ApplicationClient() = default;
ApplicationClient::~ApplicationClient() = default;
void ApplicationClient::ReportApplicationState(ApplicationState) {}

}  // namespace ara::exec

namespace ara::phm {

Phm_client::Phm_client(std::string instance) : m_instance(std::move(instance)) {}
SupervisionEntity::SupervisionEntity(Phm_client& client) : m_instance(client.instance()) {}
SupervisionEntity::~SupervisionEntity() = default;
void SupervisionEntity::CheckpointReached(std::uint16_t, std::uint16_t) {}
HealthChannel::HealthChannel(Phm_client& client) : m_instance(client.instance()) {}
HealthChannel::~HealthChannel() = default;

}  // namespace ara::phm

namespace ara::stm {

namespace {

class NoStateManager : public ComponentClient {
    ComponentClientReturnType ConfirmComponentState(std::uint32_t, const ComponentState&,
                                                    ComponentClientReturnType) const override {
        return ComponentClientReturnType::kSuccess;
    }
};

}  // namespace

std::unique_ptr<ComponentClient> createComponentClient(const std::string&, ComponentStateCallback) {
    return std::make_unique<NoStateManager>();
}

}  // namespace ara::stm

namespace ac::com::runtime {

Component_singleton::Component_singleton(bool, const std::string&) {}
Component_singleton::~Component_singleton() = default;

}  // namespace ac::com::runtime
