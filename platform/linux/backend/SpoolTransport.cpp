#include "backend/SpoolTransport.h"

#include <mqtt_protocol.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "kyo/DateTime.h"
#include "kyo/Status.h"
#include "log/PlatformLog.h"

namespace kyo::orx {

namespace {

constexpr std::chrono::seconds kRetry{1};
constexpr std::chrono::seconds kBetweenTends{5};
constexpr std::chrono::minutes kBetweenTickets{1};
constexpr std::uint64_t kBacklog = 16;  ///< fewer are sent without a wait

std::int64_t nowMs() {
    return static_cast<std::int64_t>(DateTime::getCurrentTimeMs());
}

Counter& delivered() {
    static Counter& counter = Status::counter("spool.delivered");
    return counter;
}

}  // namespace

std::shared_ptr<SpoolTransport::Figures> SpoolTransport::makeFigures() {
    auto figures = std::make_shared<Figures>();
    const auto whole = [](std::uint64_t number) { return Json::Value(static_cast<Json::UInt64>(number)); };
    Status::gauge("spool.waiting", [=] { return whole(figures->waiting); });
    Status::gauge("spool.bytes", [=] { return whole(figures->bytes); });
    Status::gauge("spool.window", [=] { return whole(figures->window); });
    Status::gauge("spool.oldestSeconds", [=] {
        const std::int64_t stored = figures->oldestMs;
        return whole(
            stored > 0 ? static_cast<std::uint64_t>(std::max<std::int64_t>(0, nowMs() - stored) / 1000) : 0);
    });
    Status::gauge("spool.perSecond", [=] { return Json::Value(figures->rate.load()); });
    Status::gauge("spool.remainingSeconds", [=]() -> Json::Value {
        const double rate = figures->rate;
        const auto waiting = static_cast<double>(figures->waiting);
        return waiting == 0.0 ? Json::Value(0.0) : rate > 0 ? Json::Value(waiting / rate) : Json::Value();
    });
    return figures;
}

SpoolTransport::SpoolTransport(const machine::BackendSettings& settings, Presence presence, SpoolDisk& disk)
    : m_settings(*settings.spool),
      m_disk(disk),
      m_figures(makeFigures()),
      m_spool(
          {m_settings.path, m_settings.maxBytes, m_settings.maxAgeSeconds, m_settings.whenFull == "oldest"},
          disk),
      m_compressor(makeCompressor(settings.compression)),
      m_forwarder({std::chrono::seconds(m_settings.resultTimeoutSeconds), m_settings.window}),
      m_configuration(m_settings.path, disk,
                      settings.remember.afterSeconds
                          ? std::optional(std::chrono::seconds(*settings.remember.afterSeconds))
                          : std::nullopt),
      m_link(std::make_unique<MqttTransport>(settings, std::move(presence), hooks())) {}

SpoolTransport::~SpoolTransport() {
    SpoolTransport::leave();
    if (m_worker.joinable()) {
        m_worker.join();
    }
    m_callbacks.stop();
}

MqttTransport::Hooks SpoolTransport::hooks() {
    return {[this](std::size_t receiveMaximum) { onConnected(receiveMaximum); }, [this] { onLost(); },
            [this](const Json::Value& message) { onMasterControl(message); },
            [this](Json::Value answer) { onConfiguration(std::move(answer)); },
            [this](std::uint64_t number, int reason) { onSettled(number, reason); }};
}

void SpoolTransport::start() {
    KYO_LOG(5, "Envelopes wait for the backend in the spool " << m_settings.path);
    try {
        m_worker = std::thread([this] { run(); });
    } catch (const std::system_error& error) {
        KYO_LOG(3, "No thread for the spool could be started: " << error.what());
        return;
    }
    m_link->start();
}

void SpoolTransport::leave() {
    m_link->leave();
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    const std::lock_guard<std::mutex> sending(
        m_sendMutex);  // an envelope that is being written is waited for
    if (!m_left && m_pending) {
        KYO_LOG(3, "1 envelope is lost with the process, as the disk has not taken it");
    }
    m_left = true;
}

std::int32_t SpoolTransport::send(const Json::Value& envelope) {
    static Counter& sent = Status::counter("orx.sent");
    static Counter& failed = Status::counter("orx.failed");
    const std::lock_guard<std::mutex> sending(m_sendMutex);
    if (m_left) {
        failed.add();
        return -ESHUTDOWN;
    }
    if (m_pending) {
        failed.add();
        KYO_LOG(3, "An envelope cannot be sent: the one before waits for the disk");
        return -EAGAIN;
    }
    const Json::Value& id = envelope["messageId"];
    SpooledEnvelope made;
    made.messageId = id.isString() ? id.asString() : "";
    if (!made.messageId.empty() && made.messageId == m_lastStored) {
        sent.add();
        answer();  // the application repeats it, as its permission was withdrawn meanwhile
        return 0;
    }
    made.storedMs = nowMs();
    made.payload = Json::FastWriter().write(envelope);
    made.textBytes = static_cast<std::uint32_t>(made.payload.size());
    if (m_compressor) {
        if (std::string compressed = m_compressor->compress(made.payload); !compressed.empty()) {
            made.payload = std::move(compressed);
            made.encoding = Encoding::Zstd;
        }
    }
    std::string cause;
    const Spool::Stored outcome = m_spool.store(made, cause);
    sent.add();
    if (outcome == Spool::Stored::NotYet) {
        logDiskTrouble(cause);
        if (m_settings.whenFull == "newest") {
            static Counter& dropped = Status::counter("spool.dropped.disk");
            dropped.add();
            m_spool.skipNumber();
            answer();
        } else {
            m_pending = std::move(made);
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_isPending = true;
        }
    } else {
        m_lastStored = made.messageId;
        if (outcome == Spool::Stored::Durably) {
            logDiskTrouble("");
        }
        answer();
    }
    wake();
    return 0;
}

/// The result 0 of the envelope that was sent last.
void SpoolTransport::answer() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isPending = false;
    deliverOwnMasterControl(masterControl(m_control.ticket, m_control.permitted, 0, 0));
}

void SpoolTransport::logDiskTrouble(const std::string& cause) {
    if (cause != m_diskTrouble) {
        if (cause.empty()) {
            KYO_LOG(5, "The spool " << m_settings.path << " takes envelopes again");
        } else {
            KYO_LOG(3, cause << "; trying again every second");
        }
        m_diskTrouble = cause;
    }
}

std::int32_t SpoolTransport::requestConfiguration() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_configuration.requested(Clock::now());
    }
    wake();
    return m_link->requestConfiguration();
}

void SpoolTransport::configurationAccepted(const std::string& recordId, bool isAccepted,
                                           const std::string& reason) {
    const std::lock_guard<std::mutex> keeping(m_keepMutex);
    RememberedConfiguration::Record record;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_health.noteConfiguration(recordId, isAccepted, reason);
        record = m_configuration.judged(recordId, isAccepted);
    }
    if (const int code = record ? m_configuration.keep(*record) : 0; code != 0) {
        KYO_LOG(3, "The configuration " << recordId
                                        << " cannot be remembered: " << std::system_category().message(code));
    }
    wake();
}

void SpoolTransport::onConnected(std::size_t receiveMaximum) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_connection;
    const bool isMuch = m_spool.waiting() > kBacklog;
    const auto jitterMs = std::int64_t{1000} * m_settings.drainJitterSeconds;
    const auto wait = isMuch ? std::uniform_int_distribution<std::int64_t>(0, jitterMs)(m_chance) : 0;
    m_forwarder.connected(receiveMaximum, m_spool.highest(), Clock::now() + std::chrono::milliseconds(wait));
    m_configuration.connected();
    m_health.connected();
    m_isWoken = true;
    m_changed.notify_all();
}

void SpoolTransport::onLost() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_connection;
    for (const std::uint64_t number : m_forwarder.lost()) {
        m_spool.setOnItsWay(number, false);
    }
}

void SpoolTransport::onMasterControl(const Json::Value& message) {
    static Counter& refused = Status::counter("control.refused");
    BackendControl control;
    std::string fault;
    if (!readBackendControl(message, control, fault)) {
        refused.add();
        KYO_LOG(3, "Master control refused, " << fault);
        return;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (const Spool::Entry& entry : m_forwarder.take(control)) {
        m_arrived.push_back(entry);
    }
    const bool isNew = !m_hasSpoken || control.permitted != m_control.permitted;
    m_control = {control.ticket, control.permitted, m_forwarder.isNamed()};
    m_hasSpoken = true;
    // While an envelope waits for the disk an opening would be its result; the result reports it then.
    if (isNew && (!m_isPending || control.permitted.empty())) {
        deliverMasterControl(masterControl(m_control.ticket, m_control.permitted, 0, 0));
    }
    m_isWoken = true;
    m_changed.notify_all();
}

void SpoolTransport::onConfiguration(Json::Value answer) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_configuration.isRepeated(answer)) {
        KYO_LOG(5, "The backend's configuration is the one that was passed on last");
    } else if (deliverConfigResponse(answer)) {
        m_configuration.passedOn(std::move(answer));
    }
}

void SpoolTransport::onSettled(std::uint64_t number, int reason) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (MqttConnection::taken(reason)) {
        m_forwarder.confirmed(number);
        return;
    }
    if (reason == MQTT_RC_PACKET_TOO_LARGE || reason == MQTT_RC_PAYLOAD_FORMAT_INVALID) {
        m_refusedForGood.push_back(number);
    } else {
        KYO_LOG(3, "The broker could not deliver envelope "
                       << number << " of the spool (reason " << reason
                       << (reason == MQTT_RC_NO_MATCHING_SUBSCRIBERS ? ", no backend listens" : "")
                       << "); it waits for the backend's next opening message");
        m_forwarder.undelivered(number);
    }
    m_isWoken = true;
    m_changed.notify_all();
}

void SpoolTransport::wake() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isWoken = true;
    m_changed.notify_all();
}

void SpoolTransport::run() {
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (m_stopping) {
                return;
            }
            m_isWoken = false;
        }
        const auto now = Clock::now();
        openSpool(now);
        retryPending(now);
        settleArrived();
        writeRemembered(now);
        keepConfiguration(now);
        tend(now);
        if (forward()) {
            continue;
        }
        const auto until = wakeAt();
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_until(lock, until, [this] { return m_stopping || m_isWoken; });
    }
}

void SpoolTransport::openSpool(Clock::time_point now) {
    if (m_isOpen || now < m_nextTry) {
        return;
    }
    std::string cause;
    if (!m_spool.open(cause)) {
        m_nextTry = now + kRetry;
        const std::lock_guard<std::mutex> sending(m_sendMutex);
        logDiskTrouble(cause);
        return;
    }
    m_isOpen = true;
    {
        const std::lock_guard<std::mutex> sending(m_sendMutex);
        logDiskTrouble("");
    }
    const auto remembered = readRememberedControl(m_spool.folder());
    KYO_LOG(5, m_spool.waiting() << " envelopes of an earlier run wait in the spool");
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (remembered) {
        m_written = *remembered;
        if (!m_hasSpoken) {
            m_control = *remembered;
            m_forwarder.setNamed(remembered->namesEnvelopes);
            if (!m_control.permitted.empty()) {
                m_hasSpoken = true;
                deliverOwnMasterControl(masterControl(m_control.ticket, m_control.permitted, 0, 0));
            }
        }
    }
}

void SpoolTransport::retryPending(Clock::time_point now) {
    const std::lock_guard<std::mutex> sending(m_sendMutex);
    if (!m_isOpen || now < m_nextTry || !m_pending) {
        return;
    }
    std::string cause;
    if (m_spool.store(*m_pending, cause) == Spool::Stored::NotYet) {
        m_nextTry = now + kRetry;
        logDiskTrouble(cause);
        return;
    }
    logDiskTrouble("");
    m_lastStored = m_pending->messageId;
    m_pending.reset();
    answer();
}

void SpoolTransport::settleArrived() {
    std::vector<Spool::Entry> arrived;
    std::vector<std::uint64_t> refused;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        arrived.swap(m_arrived);
        refused.swap(m_refusedForGood);
    }
    for (const Spool::Entry& entry : arrived) {
        m_spool.remove(entry);
        delivered().add();
    }
    for (const std::uint64_t number : refused) {
        if (const auto entry = m_spool.next(number - 1); entry && entry->number == number) {
            m_spool.setAside(*entry, "the broker refuses it for its size");
        }
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_forwarder.skip({number, 0});
    }
}

void SpoolTransport::writeRemembered(Clock::time_point now) {
    RememberedControl last;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_hasSpoken) {
            return;
        }
        m_control.namesEnvelopes = m_forwarder.isNamed();
        last = m_control;
    }
    if (!m_isOpen || last == m_written) {
        return;
    }
    // A backend may give out a ticket with each result, and the disk must not wear out for that.
    const bool isTicketAlone =
        last.permitted == m_written.permitted && last.namesEnvelopes == m_written.namesEnvelopes;
    if (isTicketAlone && now < m_nextTicket) {
        return;
    }
    m_nextTicket = now + kBetweenTickets;
    if (writeRememberedControl(m_disk, m_spool.folder(), last) == 0) {
        m_written = last;
    }
}

void SpoolTransport::keepConfiguration(Clock::time_point now) {
    bool isToAsk = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_isOpen) {
            return;
        }
        if (auto answer = m_configuration.standIn(now); answer && deliverConfigResponse(*answer)) {
            KYO_LOG(5, "No configuration from the backend yet; the remembered one is used: "
                           << (*answer)[0]["recordId"].asString());
            m_configuration.stoodIn(std::move(*answer), now);
        }
        isToAsk = m_forwarder.isConnected() && m_configuration.isToAsk(now);
    }
    if (isToAsk) {
        m_link->requestConfiguration();
    }
}

/// Sends one envelope. False when there is none to send now.
bool SpoolTransport::forward() {
    std::optional<Spool::Entry> entry;
    std::uint64_t connection = 0;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        connection = m_connection;
        entry = m_forwarder.next(Clock::now(), m_spool.highest(), [this](std::uint64_t after, int& error) {
            return m_spool.next(after, error);
        });
        m_figures->window = m_forwarder.window();
    }
    if (!entry) {
        return false;
    }
    SpooledEnvelope envelope;
    const Spool::Read outcome = m_spool.read(*entry, envelope);
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (connection != m_connection) {
        return true;
    }
    if (outcome == Spool::Read::NotNow) {
        m_forwarder.unsent(entry->number, Clock::now());
        return true;
    }
    if (outcome == Spool::Read::Gone) {
        m_forwarder.skip(*entry);
        return true;
    }
    static Counter& forwarded = Status::counter("spool.forwarded");
    m_forwarder.sent(*entry, envelope.messageId, Clock::now());
    m_spool.setOnItsWay(entry->number, true);
    std::string error;
    const std::int32_t result = m_link->sendSpooled(envelope, error);
    if (result == 0) {
        forwarded.add();
    } else if (result == MqttConnection::kTooLarge) {
        m_spool.setAside(*entry, error);
        m_forwarder.skip(*entry);
    } else {
        m_spool.setOnItsWay(entry->number, false);
        m_forwarder.unsent(entry->number, Clock::now());
    }
    return true;
}

void SpoolTransport::tend(Clock::time_point now) {
    m_figures->waiting = m_spool.waiting();
    m_figures->bytes = m_spool.bytes();
    if (m_figures->waiting == 0) {
        m_figures->oldestMs = 0;
    }
    if (now >= m_nextTend) {
        m_spool.dropOld(nowMs());
        m_figures->oldestMs = m_spool.oldestStoredMs();
        const std::uint64_t count = delivered().value();
        if (m_lastTend != Clock::time_point{}) {
            const std::chrono::duration<double> passed = now - m_lastTend;
            m_figures->rate = static_cast<double>(count - m_deliveredThen) / passed.count();
        }
        m_deliveredThen = count;
        m_lastTend = now;
        m_nextTend = now + kBetweenTends;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_forwarder.isConnected()) {
        return;
    }
    if (const auto message = m_health.due(now, m_spool.waiting(), m_spool.bytes())) {
        if (!m_link->publishHealth(*message)) {
            m_health.notPublished(now);
        }
    }
}

SpoolTransport::Clock::time_point SpoolTransport::wakeAt() {
    const auto now = Clock::now();
    auto at = std::max(now, m_nextTend);
    const auto consider = [&at, now](Clock::time_point time) { at = time > now ? std::min(at, time) : at; };
    consider(m_nextTry);
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (const auto time = m_forwarder.wakeAt(now)) {
        consider(*time);
    }
    if (const auto time = m_configuration.wakeAt()) {
        consider(*time);
    }
    consider(m_health.wakeAt());
    return at;
}

}  // namespace kyo::orx
