#include "app/vlmHeartBeat.h"

#include "base/VlmLog.h"

namespace vlmProd {

vlmHeartBeat::vlmHeartBeat() {
    InitializePHM();
}

vlmHeartBeat::~vlmHeartBeat() {
    // Both use the client, but the members' order would destroy it before the entity.
    m_healthChannel.reset();
    m_supervisionEntity.reset();
}

void vlmHeartBeat::InitializePHM() {
    m_instanceName = "vlmmaster";
    m_supervisionId = 6521;
    m_checkpointId = 6521;
    m_supervisionCycle = 600;
    m_expectedIndication = 10;
    // Existing ones are destroyed before the client that they use.
    m_healthChannel.reset();
    m_supervisionEntity.reset();
    m_phmClient = std::make_unique<ara::phm::Phm_client>(m_instanceName);
    m_supervisionEntity = std::make_unique<ara::phm::SupervisionEntity>(*m_phmClient);
    m_healthChannel = std::make_unique<ara::phm::HealthChannel>(*m_phmClient);
}

void vlmHeartBeat::sendAliveSignal() {
    if (!m_supervisionEntity) {
        VLM_LOG_AT(3, 56, "IAmAlive called, the mSupervisionEntity has not been created");
        return;
    }
    VLM_LOG(5, "IAmAlive, call CheckpointReached, supervision id=" << m_supervisionId
                                                                   << ", checkpoint id=" << m_checkpointId);
    VLM_LOG(5, "SupervisionCycle = " << m_supervisionCycle);
    VLM_LOG(5, "Expected Indication = " << m_expectedIndication);
    m_supervisionEntity->CheckpointReached(m_supervisionId, m_checkpointId);
}

}  // namespace vlmProd
