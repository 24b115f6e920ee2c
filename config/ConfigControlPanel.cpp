#include "config/ConfigControlPanel.h"

#include <botan/base64.h>

#include <exception>
#include <mutex>
#include <utility>

#include "base/JsonFields.h"
#include "base/VlmLog.h"
#include "kyo/Status.h"
#include "report/VlmReportControl.h"

namespace vlmProd {

namespace {

constexpr int kRetryMs = 660000;

}  // namespace

ConfigControlPanel::ConfigControlPanel(ConfigurationHandler handler)
    : m_retryTimer(std::make_shared<Timer>()), m_handler(std::move(handler)) {}

void ConfigControlPanel::setRequestFunction(std::function<void()> request) {
    const std::lock_guard<kyo::Mutex> lock(m_mutex);
    m_requestFunction = std::move(request);
}

void ConfigControlPanel::startConfigRequestRetry() {
    if (!m_retryStarted.exchange(true)) {
        const auto retry = [weak = weak_from_this()] {
            if (const auto panel = weak.lock()) {
                panel->executeConfigRetry();
            }
        };
        m_retryTimer->setInterval(retry, kRetryMs);
    }
}

void ConfigControlPanel::stopConfigRequestRetry() {
    m_retryTimer->stopTimer();
}

void ConfigControlPanel::executeConfigRetry() {
    std::function<void()> request;
    {
        const std::lock_guard<kyo::Mutex> lock(m_mutex);
        request = m_requestFunction;
    }
    if (request) {
        request();
    }
}

void ConfigControlPanel::ConfigResponseCallback(kyo::Json::Value response) {
    static kyo::Counter& answers = kyo::Status::counter("config.answers");
    static kyo::Counter& refused = kyo::Status::counter("config.refused");
    answers.add();
    VLM_LOG(5, "Received Config response size = " << response.size());
    // A text has no size, but is not empty.
    if (response.size() > 0) {  // NOLINT(readability-container-size-empty)
        m_retryTimer->stopTimer();
    }
    if (!response.isArray()) {
        refused.add();
        VLM_LOG(3, "Configuration answer refused: an array is expected, not " << kindOf(response));
        return;
    }
    if (response.empty()) {
        refused.add();
        VLM_LOG(3, "The configuration answer holds no record; the request goes on");
        return;
    }

    const kyo::Json::Value& record = response[0];
    std::string recordId;
    std::string recordBody;
    std::string wrong;
    if (!record.isObject()) {
        wrong = std::string("[0]: an object is expected, not ") + kindOf(record);
    } else if (const auto& value = member(record, "recordId"); !toText(value, recordId)) {
        wrong = std::string("[0].recordId: a text is expected, not ") + kindOf(value);
    } else if (const auto& body = member(record, "recordBody"); !toText(body, recordBody)) {
        wrong = std::string("[0].recordBody: a text is expected, not ") + kindOf(body);
    }
    if (!wrong.empty()) {
        refused.add();
        VLM_LOG(3, "Configuration answer refused, " << wrong);
        return;
    }
    VLM_LOG(5, "ZEPH-50057 Using OrxConfig recordId as CatalogId: " << recordId);
    VlmReportControl::getInstance().setCatalogId(recordId);

    VLM_LOG(5, "Encoded string = " << recordBody);
    kyo::Json::Value configuration;
    std::string reason;
    try {
        const auto bytes = Botan::base64_decode(recordBody, true);
        const std::string decoded(bytes.begin(), bytes.end());
        VLM_LOG(5, "De-coded string = " << decoded);
        kyo::Json::Reader reader;
        if (!reader.parse(decoded, configuration, false)) {
            reason = "[0].recordBody is not JSON: " + reader.getFormattedErrorMessages();
        }
    } catch (const std::exception& error) {
        reason = std::string("[0].recordBody is not base64: ") + error.what();
    }
    if (!reason.empty()) {
        refused.add();
        VLM_LOG(3, reason);
        VLM_LOG(3, "Can not parse from string to json to get config.");
    } else {
        reason = m_handler(std::move(configuration), recordId, std::move(recordBody));
    }
    if (m_outcome) {
        m_outcome(recordId, reason.empty(), reason);
    }
}

}  // namespace vlmProd
