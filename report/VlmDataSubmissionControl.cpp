#include "report/VlmDataSubmissionControl.h"

#include <mutex>
#include <utility>

#include "base/VlmLog.h"
#include "kyo/Status.h"

namespace vlmProd {

namespace {

constexpr const char* kAddReport =
    "bool vlmProd::VlmDataSubmissionControl::addReportToShippingQueue(kyo::Json::Value&)";

}  // namespace

VlmDataSubmissionControl* VlmDataSubmissionControl::getInstance() {
    static auto* const instance = [] {
        auto* const made = new VlmDataSubmissionControl;
        kyo::Status::gauge("reports.waiting",
                           [made] { return kyo::Json::Value(kyo::Json::UInt64(made->waitingReports())); });
        return made;
    }();
    return instance;
}

VlmDataSubmissionControl::VlmDataSubmissionControl()
    : m_shippingQueue(&kyo::Status::counter("queue.shipping.dropped")) {}

void VlmDataSubmissionControl::initializeServer(std::string serverName,
                                                std::vector<std::string> offeredDataTypes,
                                                std::shared_ptr<ConfigurationReceiver> configurations) {
    m_link = std::make_shared<VlmServer>(std::move(serverName), std::move(offeredDataTypes),
                                         std::move(configurations));
    kyo::Status::gauge("backend.open", [link = std::weak_ptr<VlmServer>(m_link)] {
        const std::shared_ptr<VlmServer> held = link.lock();
        return kyo::Json::Value(held && held->isOpen());
    });
}

void VlmDataSubmissionControl::startServer() {
    if (m_link) {
        m_link->registerDataDeliveryCallback(
            [this](orxStatus status) { processReportBasedOnDataDelivery(status); });
        m_link->startServer();
    }
}

bool VlmDataSubmissionControl::addReportToShippingQueue(Report report) {
    static kyo::Counter& queued = kyo::Status::counter("reports.queued");
    const std::lock_guard<kyo::Mutex> lock(m_addMutex);
    const auto length = static_cast<unsigned int>(report.length());
    VLM_LOG_PLAIN_AS(5, kAddReport, "ZEPH-49288 VLM sending the Report to ShippingBuffer: " << report.text());
    VLM_LOG_PLAIN_AS(5, kAddReport, "Size of SHIP QUEUE BEFORE INSERT = " << m_shippingQueue.size());
    // Counted before it can be taken, so that the count never falls below zero.
    m_waiting.fetch_add(1);
    if (m_shippingQueue.put(std::move(report), length)) {
        queued.add();
    } else {
        m_waiting.fetch_sub(1);
    }
    m_bytesAdded += length;
    VLM_LOG_PLAIN_AS(5, kAddReport, "Size of SHIP QUEUE AFTER INSERT = " << m_shippingQueue.size());
    SendWakeupSignal();
    return true;
}

void VlmDataSubmissionControl::run() {
    const Running running(*this);
    VLM_LOG(7, "VlmDataSubmissionControl thread starting up");
    VLM_LOG(7, "Starting to read from Shipping queue");
    startServer();
    while (!m_stop && drainOnce()) {
        const SleepLock lock = lockSleep();
        if (m_stop) {
            break;
        }
        VLM_LOG(7, "Conditional wait because There is no report in shipping queue");
        sleepUntilWoken();
        VLM_LOG(7, "Awaken VlmDataSubmissionControl thread to process shipping queue");
    }
    VLM_LOG_PLAIN(5, "Exiting VlmDataSubmissionControl thread");
}

bool VlmDataSubmissionControl::drainOnce() {
    if (m_shippingQueue.size() > 0 && !m_sendNextData) {
        // Set before the send, as a quick result 0 may clear it at once; and with the lock, so that a
        // result that found the queue empty a moment ago does not clear it after this.
        const std::lock_guard<std::recursive_mutex> sending(m_sendMutex);
        m_sendNextData = true;
        processReportFromQueue();
    }
    return !m_stop;
}

void VlmDataSubmissionControl::processReportFromQueue() {
    static kyo::Counter& discarded = kyo::Status::counter("reports.discarded");
    static kyo::Counter& sent = kyo::Status::counter("reports.sent");
    static kyo::Counter& failed = kyo::Status::counter("reports.failed");
    const std::lock_guard<std::recursive_mutex> lock(m_sendMutex);
    Report report;
    if (!m_shippingQueue.take(&report)) {
        VLM_LOG_PLAIN(5,
                      "Since shipping queue is empty and send next data is true. Enabling to send data when "
                      "inserted.");
        becomeIdle();
        return;
    }
    m_waiting.fetch_sub(1);
    VLM_LOG_PLAIN(5, "Processing the shipping queue = " << report.text());
    if (!report.isReadable()) {
        VLM_LOG(3, "Can not parse from string to json report.");
        discarded.add();
        return;
    }
    if (!m_link) {
        VLM_LOG(3, "ORx Server is null.");
        discarded.add();
        return;
    }
    if (!m_link->isOpen()) {
        VLM_LOG(3, "Could not sent the orx data = " << report.text());
        discarded.add();
        return;
    }
    VLM_LOG_PLAIN(5, "GOING to SEND the ORX Data " << report.text());
    const std::int32_t result = m_link->sendToOrx(report);
    if (result == 0) {
        sent.add();
        m_lastReport = std::move(report);
    } else {
        // What the backend has forbidden a moment ago has not reached the client.
        (result == VlmServer::kNothingPermitted ? discarded : failed).add();
    }
}

void VlmDataSubmissionControl::processLastReport() {
    static kyo::Counter& resent = kyo::Status::counter("reports.resent");
    static kyo::Counter& failed = kyo::Status::counter("reports.resendFailed");
    const std::lock_guard<std::recursive_mutex> lock(m_sendMutex);
    if (!m_link) {
        VLM_LOG(3, "ORx Server is null.");
        return;
    }
    if (!m_link->isOpen()) {
        return;
    }
    if (!m_lastReport.isReadable()) {
        // The very first send failed. Idle again, as no result will come that starts the next one.
        VLM_LOG_PLAIN(5, "No report was sent yet, so there is none to send again");
        becomeIdle();
        return;
    }
    const std::int32_t result = m_link->sendToOrx(m_lastReport);
    if (result == 0) {
        resent.add();
    } else if (result != VlmServer::kNothingPermitted) {
        failed.add();
    }
}

void VlmDataSubmissionControl::processReportBasedOnDataDelivery(orxStatus status) {
    switch (status) {
        case orxStatus::SendNext:
            processReportFromQueue();
            break;
        case orxStatus::SendLast:
            processLastReport();
            break;
        case orxStatus::Stop:
            VLM_LOG(3, "orx status is to stop sending data");
            break;
        default:
            VLM_LOG(3, "Do not know the status of last report sent");
            break;
    }
    VLM_LOG_PLAIN(5, "ZEPH-49769 VLM handling ShippingBuffer according to data delivery result");
}

void VlmDataSubmissionControl::SendWakeupSignal() {
    wake();
}

void VlmDataSubmissionControl::stopVlmDataSubmissionControl() {
    m_stop = true;
    const SleepLock lock = lockSleep();
    VLM_LOG_PLAIN(5, "Waking up Vlm Data Submission Control Thread to process the shipping queue");
    broadcast();
}

void VlmDataSubmissionControl::becomeIdle() {
    m_sendNextData = false;
    // A report that was added while the flag was still set woke the thread for nothing.
    if (m_shippingQueue.size() > 0) {
        SendWakeupSignal();
    }
}

}  // namespace vlmProd
