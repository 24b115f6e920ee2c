#pragma once
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "base/ConcurrentQueue.h"
#include "base/Worker.h"

namespace vlmProd {

/// Connects services one after the other on its own thread. A name that this does not connect goes back to
/// the end of the queue and is retried without limit; so do a name that is connected already and an unknown
/// one. After each name the thread pauses for two seconds.
///
/// The base setup creates and starts one and never destroys it: its thread waits on the condition until the
/// process ends. Any thread may call the operations, except run(), processServiceNames() and drainOnce().
class ServiceDiscovery : public Worker {
  public:
    using FindService = std::function<bool(const std::string&)>;
    using Pause = std::function<void(std::chrono::seconds)>;

    /// Connects through the service registry.
    ServiceDiscovery();
    /// Connects with `findService` and pauses with `pause`.
    ServiceDiscovery(FindService findService, Pause pause);
    /// Only if the thread was never started or has ended.
    ~ServiceDiscovery() override;

    void run() override;

    /// Queues a proxy's name ("GNSSProxy"). Does not block for long. Drops and counts the name when ten tries
    /// cannot lock the queue.
    void discoverService(std::string serviceName);
    /// Queues the services' proxies: appends "Proxy" to each element of `services` itself.
    void discoverService(std::vector<std::string>& services);
    void SendWakeupSignal();
    /// Ends the thread at its next check, which comes when the queue is empty.
    void stopServiceDiscoveryThread();

    /// Tries each queued name, also those that go back into the queue, until the queue is empty.
    void processServiceNames();
    bool drainOnce() override;

  private:
    void push(std::string name);

    const FindService m_findService;
    const Pause m_pause;
    ConcurrentQueue<std::string> m_names;
};

}  // namespace vlmProd
