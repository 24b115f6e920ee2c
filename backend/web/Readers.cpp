#include "backend/web/Readers.h"

#include "backend/web/Router.h"

namespace vlmBackend::web {

std::unique_ptr<store::Sql> Readers::take() {
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_returned.wait_for(lock, kLongestWait, [this] { return m_lent < m_most; })) {
            throw Problem(503, "the database is busy with other requests");
        }
        ++m_lent;
        if (!m_idle.empty()) {
            auto ready = std::move(m_idle.back());
            m_idle.pop_back();
            return ready;
        }
    }
    return nullptr;
}

void Readers::end() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_ending = true;
    for (store::Sql* const sql : m_working) {
        sql->interrupt();
    }
}

void Readers::use(const std::function<void(store::Sql& sql)>& work) {
    std::unique_ptr<store::Sql> sql = take();
    bool good = false;
    // Also when something is thrown. A connection that may have failed is not used again.
    const auto giveBack = [&](void*) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        --m_lent;
        m_working.erase(sql.get());
        if (good) {
            m_idle.push_back(std::move(sql));
        }
        m_returned.notify_one();
    };
    const std::unique_ptr<void, decltype(giveBack)> lent(this, giveBack);
    if (!sql) {
        sql = store::connect(m_where, true);
    }
    sql->limitTime(kLongestQuery);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_ending) {
            throw Problem(503, "the backend ends");
        }
        m_working.insert(sql.get());
    }
    good = true;
    try {
        work(*sql);
    } catch (const store::DatabaseError&) {
        good = false;
        throw;
    }
}

}  // namespace vlmBackend::web
