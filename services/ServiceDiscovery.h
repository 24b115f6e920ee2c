#pragma once
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "base/ConcurrentQueue.h"
#include "base/Worker.h"

namespace vlmProd {

/// Connects services one after the other on a thread of its own. A name that could not be connected, as well
/// as one that was connected before or that nobody knows, goes back to the end of the queue: it is tried
/// again without limit. After each name the thread pauses for two seconds.
///
/// The base setup creates and starts one, and leaves it to the operating system: its thread waits on the
/// condition until the process ends. All operations but the thread's own may be called from any thread.
class ServiceDiscovery : public Worker {
  public:
    using FindService = std::function<bool(const std::string&)>;
    using Pause = std::function<void(std::chrono::seconds)>;

    /// Asks the service registry.
    ServiceDiscovery();
    /// Asks `findService` and rests with `pause`.
    ServiceDiscovery(FindService findService, Pause pause);
    /// Only for one whose thread was never started or has ended.
    ~ServiceDiscovery() override;

    void run() override;

    /// Queues a proxy's name ("GNSSProxy") as it is. Never blocks for long; a name whose queue could not be
    /// locked in ten tries is lost and counted.
    void discoverService(std::string serviceName);
    /// Queues the services' proxies: appends "Proxy" to each element of `services` itself.
    void discoverService(std::vector<std::string>& services);
    void SendWakeupSignal();
    /// Ends the thread at its next check, which comes when the queue is empty.
    void stopServiceDiscoveryThread();

    /// Tries each queued name, and those that it puts back, until the queue is empty.
    void processServiceNames();
    bool drainOnce() override;

  private:
    void push(std::string name);

    const FindService m_findService;
    const Pause m_pause;
    ConcurrentQueue<std::string> m_names;
};

}  // namespace vlmProd
