#include "config/ConfigControlPanel.h"

#include <botan/base64.h>

#include <exception>
#include <mutex>
#include <utility>

#include "base/VlmLog.h"
#include "json/FieldReader.h"
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
    FieldReader reader("the answer", Reading::Converting);
    const auto records = reader.root(response).elements();
    std::string recordId;
    std::string recordBody;
    if (!records.empty()) {
        records[0].object();
        records[0].expect(!records[0].value().isNull(), "an object");
        records[0]["recordId"].text(recordId);
        records[0]["recordBody"].text(recordBody);
    }
    if (!reader.good()) {
        refused.add();
        VLM_LOG(3, "Configuration answer refused, " << reader.faults().front());
        return;
    }
    if (records.empty()) {
        refused.add();
        VLM_LOG(3, "The configuration answer holds no record; the request goes on");
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
        kyo::Json::Reader json;
        if (std::string fault; !isWithin(kLimits, decoded, fault)) {
            reason = "[0].recordBody: " + fault;
        } else if (!json.parse(decoded, configuration, false)) {
            reason = "[0].recordBody is not JSON: " + json.getFormattedErrorMessages();
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
