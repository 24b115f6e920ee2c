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

/// The process under supervision of its liveness: while it reports no checkpoint for too long, health
/// management may restart it. Used by one thread.
class SupervisionEntity {
  public:
    /// Uses `client` only during the call.
    explicit SupervisionEntity(Phm_client& client);
    ~SupervisionEntity();
    /// Reports that the process has reached this checkpoint. Does not block or throw; a failure is logged.
    void CheckpointReached(std::uint16_t supervisionId, std::uint16_t checkpointId);

  private:
    std::string m_instance;
};

/// The channel for health states of the process. The application keeps it open and reports none.
class HealthChannel {
  public:
    /// Uses `client` only during the call.
    explicit HealthChannel(Phm_client& client);
    ~HealthChannel();

  private:
    std::string m_instance;
};

}  // namespace ara::phm
