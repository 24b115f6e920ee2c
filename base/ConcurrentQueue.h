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

/// First in, first out. Every value has a weight; size() is the sum of the weights.
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

/// The queue between any number of producers and consumers. Nothing blocks for long: the lock is held only
/// to link or unlink one node, memory is taken and given back outside of it.
///
/// Policy when the lock cannot be had: put() gives up after ten tries, 100 microseconds apart, and the value
/// is lost; `dropped` counts it. There is no upper limit to the length.
template <typename T>
class ConcurrentQueue : private Queue<T> {
  public:
    /// `dropped` counts the values that put() had to give up, and must outlive the queue.
    explicit ConcurrentQueue(kyo::Counter* dropped = nullptr) : m_dropped(dropped) {}
    ConcurrentQueue(const ConcurrentQueue&) = delete;
    ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;
    ~ConcurrentQueue() override {
        while (m_head != nullptr) {
            delete std::exchange(m_head, m_head->next);
        }
    }

    /// Appends the value. False: the lock was taken at each of ten tries and the value is lost.
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

    /// Removes the oldest value and moves it to `value`. False when the queue is empty.
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

    /// Copies the oldest value. False when the queue is empty.
    bool front(T* value) override {
        return withFront([value](const T& oldest) { *value = oldest; });
    }
    /// Copies the newest value. False when the queue is empty.
    bool back(T* value) override {
        return withBack([value](const T& newest) { *value = newest; });
    }

    /// Calls `look(const T&)` with the oldest value while the queue is locked. False when it is empty.
    template <typename F>
    bool withFront(F&& look) {
        const std::lock_guard<kyo::Mutex> lock(m_mutex);
        if (m_head != nullptr) {
            look(std::as_const(m_head->value));
        }
        return m_head != nullptr;
    }
    /// As withFront(), with the newest value.
    template <typename F>
    bool withBack(F&& look) {
        const std::lock_guard<kyo::Mutex> lock(m_mutex);
        if (m_tail != nullptr) {
            look(std::as_const(m_tail->value));
        }
        return m_tail != nullptr;
    }

    /// The sum of the weights of what is queued (modulo 2^32). Takes no lock.
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
