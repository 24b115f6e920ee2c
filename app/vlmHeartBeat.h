#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "ara/phm/supervision.h"

namespace vlmProd {

/// Reports to platform health management that the main loop runs. Used by the main thread only.
class vlmHeartBeat {
  public:
    /// Connects to health management. Throws the platform's exceptions.
    vlmHeartBeat();
    virtual ~vlmHeartBeat();
    vlmHeartBeat(const vlmHeartBeat&) = delete;
    vlmHeartBeat& operator=(const vlmHeartBeat&) = delete;

    /// Creates the client, the supervision entity and the health channel; replaces existing ones.
    void InitializePHM();
    /// Reports one alive checkpoint; without a supervision entity only logs. Does not block.
    void sendAliveSignal();

  protected:
    struct Unconnected {};
    /// For tests: not connected to health management.
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
