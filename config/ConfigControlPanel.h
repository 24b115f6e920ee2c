#pragma once
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "bus/Timer.h"
#include "json/TextLimits.h"
#include "kyo/Json.h"
#include "kyo/Mutex.h"
#include "report/ConfigurationReceiver.h"

namespace vlmProd {

/// Requests the collector configuration from the backend until any answer has arrived, and passes the
/// answer's configuration on. A shared_ptr must own it: the retry timer's thread checks whether it still
/// exists.
///
/// Answers arrive on the backend client's thread, retries run on the timer's thread.
class ConfigControlPanel : public ConfigurationReceiver,
                           public std::enable_shared_from_this<ConfigControlPanel> {
  public:
    /// Starts a parsed configuration. Gets identifier and text of its record as well. Returns why the
    /// configuration does not run; an empty text when it does.
    using ConfigurationHandler = std::function<std::string(kyo::Json::Value configuration,
                                                           std::string recordId, std::string recordBody)>;

    /// Of a collector configuration: some ten times one that collects everything.
    static constexpr TextLimits kLimits{64u << 20, 64, 100'000};

    /// `handler` gets the configurations, on the thread of the answer.
    explicit ConfigControlPanel(ConfigurationHandler handler);

    /// Sets the function that sends one request; an empty one sends nothing.
    void setRequestFunction(std::function<void()> request) override;

    /// Retries every eleven minutes. Only the first call has an effect.
    void startConfigRequestRetry() override;
    void stopConfigRequestRetry() override;
    void executeConfigRetry();
    bool isRetrying() const { return m_retryTimer->millisecondsToNextTick() > 0; }

    /// Handles one answer: an array whose first element has "recordId" and "recordBody", a configuration in
    /// base64. An answer that cannot be used is logged, counted and configures nothing. If its identifier and
    /// body are texts, the reports have the identifier all the same.
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
