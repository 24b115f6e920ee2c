#pragma once
/// The minimal platform's backend client: a test answers its calls and sends messages through it.
#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "kyo/OrxClient.h"

namespace vlmTest {

/// Controls and observes the kyo::OrxClient that was created last.
class ScriptedClient {
  public:
    static ScriptedClient& current();

    /// Resets everything but the callback: nothing was sent, and each send succeeds.
    void reset();
    /// `answer` gives the result of each send and each request; it is called without a lock. By default they
    /// succeed.
    void answerSends(std::function<std::int32_t()> answer) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_answer = std::move(answer);
    }
    std::vector<kyo::Json::Value> envelopes() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_envelopes;
    }
    std::size_t sends() const { return envelopes().size(); }
    int requests() const { return m_requests; }
    /// Calls the callback on the calling thread, which plays the client's thread.
    void masterControl(const kyo::Json::Value& message) const { m_onMasterControl(message); }

  private:
    friend kyo::OrxClient;
    std::int32_t answer() const {
        std::unique_lock<std::mutex> lock(m_mutex);
        const auto answer = m_answer;
        lock.unlock();
        return answer ? answer() : 0;
    }
    std::atomic<int> m_requests{0};
    kyo::OrxClient::JsonCallback m_onMasterControl;
    mutable std::mutex m_mutex;
    // Guarded by m_mutex.
    std::function<std::int32_t()> m_answer;
    std::vector<kyo::Json::Value> m_envelopes;
};

/// A master-control message; by default it leaves the channel open.
kyo::Json::Value control(int result = 0, int channel = 0,
                         const std::vector<std::string>& permitted = {"TypeA"},
                         const std::string& ticket = "ticket");

/// A small report, like those of report control.
kyo::Json::Value report(const std::string& name, int number = 1,
                        const std::string& created = "1700000000000");

/// The report in an envelope.
kyo::Json::Value reportIn(const kyo::Json::Value& envelope);

}  // namespace vlmTest
