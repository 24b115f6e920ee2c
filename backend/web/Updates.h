#pragma once
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "backend/store/Configurations.h"
#include "backend/web/Metrics.h"
#include "backend/web/Readers.h"
#include "backend/web/Router.h"

namespace vlmBackend::web {

/// /api/updates. One thread reads the vehicles' states from the database while somebody listens, so that
/// other instances' work is seen, too. Each reader remembers which version of the states it has, and writes
/// what is newer on its own thread: a slow one holds nobody up, and nothing waits for it in a queue.
class Updates {
  public:
    static constexpr std::int64_t kMostReaders = 32;

    Updates(Readers& readers, Metrics& metrics);
    ~Updates();
    Updates(const Updates&) = delete;
    Updates& operator=(const Updates&) = delete;

    void addRoutes(Router& router);
    /// All readers end now. The server is destroyed after that, this after the server.
    void end();

  private:
    struct State {
        std::string text;  ///< JSON
        std::uint64_t version = 0;
    };

    void run();
    void poll();
    void take(std::map<std::string, std::string> found);
    void serve(const Put& put);
    std::string news(std::uint64_t& sent, std::uint64_t& configurations, bool first) const;

    Readers& m_readers;
    Metrics& m_metrics;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<std::string, State>
        m_states;                        ///< of what changed lately, by vehicle; these are guarded by m_mutex
    std::uint64_t m_version = 0;         ///< of the newest state
    std::uint64_t m_forgotten = 0;       ///< a reader with an older version has missed a state
    std::uint64_t m_configurations = 0;  ///< changes of configurations, assignments and what became of them
    store::ChangeCounts m_changes;       ///< of the database; the thread's
    std::uint64_t m_polls = 0;
    int m_listening = 0;
    bool m_ending = false;
    std::thread m_thread;
};

}  // namespace vlmBackend::web
