#pragma once
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "kyo/Mutex.h"
#include "kyo/Status.h"

namespace vlmProd {

/// A FIFO queue. Every value has a weight; size() is the sum of the weights.
template <typename T>
class Queue {
  public:
    virtual ~Queue() = default;
    virtual bool put(T value, unsigned int size) = 0;
    virtual bool take(T* value) = 0;
    virtual bool front(T* value) = 0;
    virtual bool back(T* value) = 0;
    virtual unsigned int size() = 0;
};

/// A queue for any number of producers and consumers. No operation blocks for long: the lock is held only to
/// link or unlink one node; memory is allocated and freed outside it.
///
/// put() tries the lock ten times, 100 microseconds apart; then it drops the value and counts that in
/// `dropped`. The length is not limited.
template <typename T>
class ConcurrentQueue : private Queue<T> {
  public:
    /// `dropped` counts the values that put() drops. It must outlive the queue.
    explicit ConcurrentQueue(kyo::Counter* dropped = nullptr) : m_dropped(dropped) {}
    ConcurrentQueue(const ConcurrentQueue&) = delete;
    ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;
    ~ConcurrentQueue() override {
        while (m_head != nullptr) {
            delete std::exchange(m_head, m_head->next);
        }
    }

    /// Appends the value. Returns false when all ten tries found the lock taken: the value is dropped.
    bool put(T value, unsigned int size) override {
        auto node = std::make_unique<Node>(std::move(value), size);
        for (int attempt = 1; !m_mutex.tryLock(); ++attempt) {
            if (attempt == kAttempts) {
                if (m_dropped != nullptr) {
                    m_dropped->add();
                }
                return false;
            }
            std::this_thread::sleep_for(kPause);
        }
        const std::lock_guard<kyo::Mutex> lock(m_mutex, std::adopt_lock);
        Node* const added = node.release();
        if (m_tail != nullptr) {
            m_tail->next = added;
        } else {
            m_head = added;
        }
        m_tail = added;
        m_total.fetch_add(size);
        return true;
    }

    /// Removes the oldest value and moves it to `value`. Returns false when the queue is empty.
    bool take(T* value) override {
        std::unique_ptr<Node> node;
        {
            const std::lock_guard<kyo::Mutex> lock(m_mutex);
            if (m_head == nullptr) {
                return false;
            }
            node.reset(m_head);
            m_head = node->next;
            if (m_head == nullptr) {
                m_tail = nullptr;
            }
            m_total.fetch_sub(node->size);
        }
        *value = std::move(node->value);
        return true;
    }

    /// Copies the oldest value. Returns false when the queue is empty.
    bool front(T* value) override {
        return withFront([value](const T& oldest) { *value = oldest; });
    }
    /// Copies the newest value. Returns false when the queue is empty.
    bool back(T* value) override {
        return withBack([value](const T& newest) { *value = newest; });
    }

    /// Calls `use(const T&)` with the oldest value, with the lock held. Returns false when the queue is
    /// empty.
    template <typename F>
    bool withFront(F&& use) {
        const std::lock_guard<kyo::Mutex> lock(m_mutex);
        if (m_head != nullptr) {
            use(std::as_const(m_head->value));
        }
        return m_head != nullptr;
    }
    /// As withFront(), with the newest value.
    template <typename F>
    bool withBack(F&& use) {
        const std::lock_guard<kyo::Mutex> lock(m_mutex);
        if (m_tail != nullptr) {
            use(std::as_const(m_tail->value));
        }
        return m_tail != nullptr;
    }

    /// The sum of the weights of the queued values (modulo 2^32). Takes no lock.
    unsigned int size() override { return m_total.load(); }

  private:
    struct Node {
        Node(T&& v, unsigned int s) : value(std::move(v)), size(s) {}
        T value;
        unsigned int size;
        Node* next = nullptr;
    };

    static constexpr int kAttempts = 10;
    static constexpr std::chrono::microseconds kPause{100};

    kyo::Counter* const m_dropped;
    std::atomic<unsigned int> m_total{0};
    kyo::Mutex m_mutex;
    Node* m_head = nullptr;  ///< guarded by m_mutex; owns the chain
    Node* m_tail = nullptr;  ///< guarded by m_mutex
};

}  // namespace vlmProd
