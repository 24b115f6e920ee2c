#pragma once
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "bus/Timer.h"
#include "kyo/Json.h"
#include "kyo/Mutex.h"
#include "report/ConfigurationReceiver.h"

namespace vlmProd {

/// Asks the backend for the collector configuration until any answer has come, and hands what the answer
/// holds on. Must be owned by a shared_ptr: the retry timer's thread looks whether it still
/// lives.
///
/// An answer comes on the backend client's thread, the retry on the timer's thread.
class ConfigControlPanel : public ConfigurationReceiver,
                           public std::enable_shared_from_this<ConfigControlPanel> {
  public:
    /// Takes a parsed configuration, with identifier and text of the record that it came in. Returns why it
    /// does not run; an empty text when it does.
    using ConfigurationHandler = std::function<std::string(kyo::Json::Value configuration,
                                                           std::string recordId, std::string recordBody)>;

    /// Configurations go to `handler`, called on the thread of the answer.
    explicit ConfigControlPanel(ConfigurationHandler handler);

    /// What issues one request; an empty function asks nothing.
    void setRequestFunction(std::function<void()> request) override;

    /// Asks again every eleven minutes. Only the first call does something.
    void startConfigRequestRetry() override;
    void stopConfigRequestRetry() override;
    void executeConfigRetry();
    bool isRetrying() const { return m_retryTimer->millisecondsToNextTick() > 0; }

    /// One answer: an array whose first element has "recordId" and "recordBody", a configuration in base64.
    /// One that cannot be used is logged and counted, and configures nothing; but as soon as identifier and
    /// body are texts, the reports carry the identifier.
    void ConfigResponseCallback(kyo::Json::Value response) override;
    void setOutcomeFunction(OutcomeFunction outcome) override { m_outcome = std::move(outcome); }

  private:
    std::atomic<bool> m_retryStarted{false};
    const std::shared_ptr<Timer> m_retryTimer;
    const ConfigurationHandler m_handler;
    OutcomeFunction m_outcome;  ///< set once, before the first answer

    kyo::Mutex m_mutex;
    std::function<void()> m_requestFunction;  ///< guarded by m_mutex
};

}  // namespace vlmProd
