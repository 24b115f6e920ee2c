#pragma once
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "backend/store/Sql.h"

namespace vlmBackend::web {

/// Read-only connections to the database; each serves one request at a time. Any thread.
class Readers {
  public:
    static constexpr std::chrono::seconds kLongestWait{10};   ///< for a connection
    static constexpr std::chrono::seconds kLongestQuery{30};  ///< a longer one ends with a DatabaseError

    /// Opens at most `most` connections, each at its first use.
    Readers(std::string where, std::size_t most) : m_where(std::move(where)), m_most(most) {}

    /// Calls `work` with a connection. Throws what `work` throws, DatabaseError, or Problem after
    /// kLongestWait. `work` must not wait for a client: others need the connection, and an open query keeps
    /// SQLite's log growing.
    void use(const std::function<void(store::Sql& sql)>& work);

    /// Running queries fail now, and further ones are refused.
    void end();

  private:
    std::unique_ptr<store::Sql> take();

    const std::string m_where;
    const std::size_t m_most;
    std::mutex m_mutex;
    std::condition_variable m_returned;
    std::vector<std::unique_ptr<store::Sql>> m_idle;  ///< guarded by m_mutex
    std::size_t m_lent = 0;                           ///< guarded by m_mutex
    std::set<store::Sql*> m_working;                  ///< guarded by m_mutex
    bool m_ending = false;                            ///< guarded by m_mutex
};

}  // namespace vlmBackend::web
