#include "backend/Forwarder.h"

#include <algorithm>

#include "json/FieldReader.h"

namespace kyo::orx {

namespace {

/// Further new envelopes wait for the old ones: only of so few does the spool know the names without reading
/// the folder.
constexpr std::uint64_t kMostNew = Spool::kAhead / 2;

constexpr std::chrono::seconds kRetry{1};

}  // namespace

bool readBackendControl(const Json::Value& message, BackendControl& out, std::string& fault) {
    vlmProd::FieldReader reader("the message", vlmProd::Reading::Converting);
    const vlmProd::Field control = reader.root(message);
    control.object();
    control.expect(!message.isNull(), "an object");
    for (const vlmProd::Field& type : control["permittedDataType"].elements("an array of texts")) {
        type.text(out.permitted.emplace_back());
    }
    control["eventTicket"].text(out.ticket);
    control["messageId"].text(out.messageId);
    control["backendChannelControl"].number(out.channel);
    control["dataDeliveryResult"].number(out.result);
    if (!reader.good()) {
        fault = reader.faults().front();
    }
    return reader.good();
}

void Forwarder::connected(std::size_t receiveMaximum, std::uint64_t highest, TimePoint drainFrom) {
    m_items.clear();
    m_connected = true;
    m_open = false;
    m_heard = false;
    m_window = 1;
    m_largestWindow = std::max<std::size_t>(1, std::min(m_settings.largestWindow, receiveMaximum));
    m_boundary = m_newTaken = highest;
    m_oldTaken = 0;
    m_lastWasNew = false;
    m_drainFrom = drainFrom;
}

std::vector<std::uint64_t> Forwarder::lost() {
    std::vector<std::uint64_t> numbers;
    for (const Item& item : m_items) {
        numbers.push_back(item.entry.number);
    }
    m_items.clear();
    m_connected = false;
    m_open = false;
    return numbers;
}

Forwarder::Item* Forwarder::find(std::uint64_t number) {
    const auto found = std::find_if(m_items.begin(), m_items.end(),
                                    [number](const Item& item) { return item.entry.number == number; });
    return found != m_items.end() ? &*found : nullptr;
}

std::vector<Forwarder::Entry> Forwarder::take(const BackendControl& control) {
    std::vector<Entry> arrived;
    if (!m_connected) {
        return arrived;
    }
    const bool isFirst = !m_heard;
    m_heard = true;
    if (!control.messageId.empty()) {
        m_named = true;
        if (control.channel != 0 || control.result > 1 || control.permitted.empty()) {
            m_open = false;
        }
        const auto item = std::find_if(m_items.begin(), m_items.end(), [&control](const Item& i) {
            return i.messageId == control.messageId;
        });
        if (item == m_items.end()) {
            return arrived;  // answered before, or of an earlier connection
        }
        m_window = std::min(m_largestWindow, m_window * 2);
        if (control.result == 0) {
            arrived.push_back(item->entry);
            m_items.erase(item);
        } else {
            item->state = State::AwaitsOpening;
        }
        return arrived;
    }
    if (!control.opens()) {
        m_open = false;
        m_window = 1;
        for (Item& item : m_items) {
            item.state = State::AwaitsOpening;
        }
        return arrived;
    }
    m_open = true;
    const bool isConfirmed = std::any_of(m_items.begin(), m_items.end(),
                                         [](const Item& item) { return item.state == State::Confirmed; });
    if (isConfirmed && !isFirst) {
        if (!m_named && m_window == 1 && m_items.size() == 1) {
            arrived.push_back(m_items.front().entry);
            m_items.clear();
        }
        m_window = 1;
    }
    for (Item& item : m_items) {
        if (item.state == State::AwaitsOpening) {
            item.state = State::Due;
        }
    }
    return arrived;
}

void Forwarder::confirmed(std::uint64_t number) {
    Item* const item = find(number);
    if (item != nullptr && item->state == State::OnItsWay) {
        item->state = State::Confirmed;
    }
}

void Forwarder::undelivered(std::uint64_t number) {
    if (Item* const item = find(number)) {
        item->state = State::AwaitsOpening;
    }
}

std::optional<Forwarder::Entry> Forwarder::firstFree(std::uint64_t after, const Source& source,
                                                     int& error) const {
    auto entry = source(after, error);
    while (entry && std::any_of(m_items.begin(), m_items.end(),
                                [&entry](const Item& item) { return item.entry.number == entry->number; })) {
        entry = source(entry->number, error);
    }
    return entry;
}

std::optional<Forwarder::Entry> Forwarder::next(TimePoint now, std::uint64_t highest, const Source& source) {
    if (!isOpen() || now < m_retryAt) {
        return std::nullopt;
    }
    std::size_t active = 0;
    for (Item& item : m_items) {
        const bool isActive = item.state == State::OnItsWay || item.state == State::Confirmed;
        if (isActive && now - item.sentAt >= m_settings.resultTimeout) {
            item.state = State::Due;
            m_named = false;
            m_window = 1;
        } else {
            active += isActive ? 1 : 0;
        }
    }
    if (active >= m_window) {
        return std::nullopt;
    }
    for (const Item& item : m_items) {
        if (item.state == State::Due) {
            return item.entry;
        }
    }
    if (m_items.size() >= m_window) {
        return std::nullopt;
    }
    if (highest > m_newTaken + kMostNew) {
        m_boundary = m_newTaken = highest;
    }
    int error = 0;
    const auto newer = highest > m_newTaken ? firstFree(m_newTaken, source, error) : std::nullopt;
    if (newer && !m_lastWasNew) {
        return newer;
    }
    if (m_oldTaken < m_boundary && now >= m_drainFrom) {
        const auto old = firstFree(m_oldTaken, source, error);
        if (old && old->number <= m_boundary) {
            return old;
        }
        m_oldTaken = error == 0 ? m_boundary : m_oldTaken;
    }
    if (error != 0 && !newer) {
        m_retryAt = now + kRetry;
    }
    return newer;
}

void Forwarder::moveOn(std::uint64_t number) {
    m_lastWasNew = number > m_boundary;
    std::uint64_t& taken = m_lastWasNew ? m_newTaken : m_oldTaken;
    taken = std::max(taken, number);
}

void Forwarder::sent(const Entry& entry, const std::string& messageId, TimePoint now) {
    if (Item* const item = find(entry.number)) {
        item->state = State::OnItsWay;
        item->sentAt = now;
        return;
    }
    m_items.push_back({entry, messageId, now, State::OnItsWay});
    moveOn(entry.number);
}

void Forwarder::unsent(std::uint64_t number, TimePoint now) {
    if (Item* const item = find(number)) {
        item->state = State::Due;
    }
    m_retryAt = now + kRetry;
}

void Forwarder::skip(const Entry& entry) {
    const auto gone = std::remove_if(m_items.begin(), m_items.end(), [&entry](const Item& item) {
        return item.entry.number == entry.number;
    });
    if (gone != m_items.end()) {
        m_items.erase(gone, m_items.end());
    } else {
        moveOn(entry.number);
    }
}

std::optional<Forwarder::TimePoint> Forwarder::wakeAt(TimePoint now) const {
    if (!isOpen()) {
        return std::nullopt;
    }
    TimePoint at = TimePoint::max();
    const auto consider = [&at, now](TimePoint time) { at = time > now ? std::min(at, time) : at; };
    for (const Item& item : m_items) {
        if (item.state == State::OnItsWay || item.state == State::Confirmed) {
            consider(item.sentAt + m_settings.resultTimeout);
        }
    }
    consider(m_retryAt);
    consider(m_drainFrom);
    return at == TimePoint::max() ? std::nullopt : std::optional(at);
}

}  // namespace kyo::orx
