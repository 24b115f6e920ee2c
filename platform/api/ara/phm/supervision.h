#pragma once
#include <cstdint>
#include <string>

namespace ara::phm {

/// The connection to platform health management for one process instance.
class Phm_client {
  public:
    explicit Phm_client(std::string instance);
    const std::string& instance() const { return m_instance; }

  private:
    std::string m_instance;
};

class SupervisionEntity {
  public:
    explicit SupervisionEntity(Phm_client& client);
    ~SupervisionEntity();
    /// Reports that the process has reached this checkpoint. Does not block.
    void CheckpointReached(std::uint16_t supervisionId, std::uint16_t checkpointId);

  private:
    std::string m_instance;
};

class HealthChannel {
  public:
    explicit HealthChannel(Phm_client& client);
    ~HealthChannel();

  private:
    std::string m_instance;
};

}  // namespace ara::phm
