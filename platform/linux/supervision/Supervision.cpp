#include "ara/phm/supervision.h"

#include <cstring>
#include <utility>

#include "log/PlatformLog.h"
#include "supervision/ServiceManager.h"

namespace ara::phm {

Phm_client::Phm_client(std::string instance) : m_instance(std::move(instance)) {}

SupervisionEntity::SupervisionEntity(Phm_client& client) : m_instance(client.instance()) {}

SupervisionEntity::~SupervisionEntity() = default;

void SupervisionEntity::CheckpointReached(std::uint16_t supervisionId, std::uint16_t checkpointId) {
    const int sent = kyo::notifyServiceManager("WATCHDOG=1");
    if (sent < 0) {
        KYO_LOG(3, "The watchdog cannot be notified that " << m_instance
                                                           << " is alive: " << std::strerror(-sent));
    } else {
        KYO_LOG(7, m_instance << " reached checkpoint " << checkpointId << " of supervision " << supervisionId
                              << (sent > 0 ? "" : ", no watchdog"));
    }
}

HealthChannel::HealthChannel(Phm_client& client) : m_instance(client.instance()) {}

HealthChannel::~HealthChannel() = default;

}  // namespace ara::phm
