#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "ara/phm/supervision.h"

namespace vlmProd {

/// Reports to platform health management that the main loop turns. Used by the main thread only.
class vlmHeartBeat {
  public:
    /// Connects; exceptions of the platform pass through.
    vlmHeartBeat();
    virtual ~vlmHeartBeat();
    vlmHeartBeat(const vlmHeartBeat&) = delete;
    vlmHeartBeat& operator=(const vlmHeartBeat&) = delete;

    /// Makes the client, the supervision entity and the health channel, in place of any made before.
    void InitializePHM();
    /// Reports one alive checkpoint; without a supervision entity it only says so. Does not block.
    void sendAliveSignal();

  protected:
    struct Unconnected {};
    /// As if health management had not been there.
    explicit vlmHeartBeat(Unconnected /*tag*/) {}

  private:
    std::string m_instanceName;
    std::uint16_t m_supervisionId = 0;
    std::uint16_t m_checkpointId = 0;
    std::uint16_t m_supervisionCycle = 0;
    std::uint16_t m_expectedIndication = 0;
    std::unique_ptr<ara::phm::SupervisionEntity> m_supervisionEntity;
    std::unique_ptr<ara::phm::Phm_client> m_phmClient;
    std::unique_ptr<ara::phm::HealthChannel> m_healthChannel;
};

}  // namespace vlmProd
