#pragma once
/// A list that any thread may extend and read.
#include <mutex>
#include <utility>
#include <vector>

namespace vlmTest {

template <typename T>
class SharedList {
  public:
    void add(T value) {
        const std::lock_guard lock(m_mutex);
        m_all.push_back(std::move(value));
    }
    std::vector<T> all() const {
        const std::lock_guard lock(m_mutex);
        return m_all;
    }
    /// Returns all and leaves none.
    std::vector<T> take() {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_all, {});
    }
    std::size_t size() const { return all().size(); }

  private:
    mutable std::mutex m_mutex;
    std::vector<T> m_all;  ///< guarded by m_mutex
};

}  // namespace vlmTest
