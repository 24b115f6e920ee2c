#pragma once
#include <mutex>
#include <string>
#include <vector>

#include "backend/web/Router.h"
#include "state/StateSocket.h"

namespace vlmBackend::web {

/// The vlmmaster of this machine: its state socket, and its log file. Any thread.
class Machine {
  public:
    /// An empty path: this machine has none.
    Machine(std::string socket, std::string logFile)
        : m_path(std::move(socket)), m_logFile(std::move(logFile)) {}

    bool isKnown() const { return !m_path.empty(); }
    void addRoutes(Router& router);

    /// Returns at most 200 of the newest lines up to level 3. Reads only the end of a long file.
    static std::vector<std::string> importantLines(const std::string& logFile);

  private:
    kyo::Json::Value state();

    const std::string m_path;
    const std::string m_logFile;
    std::mutex m_mutex;
    ara::stm::StateSocket m_socket;  ///< guarded by m_mutex
};

}  // namespace vlmBackend::web
