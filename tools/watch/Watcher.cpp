#include "tools/watch/Watcher.h"

#include <algorithm>

#include "someip/Endpoint.h"
#include "tools/check/Suggest.h"

namespace vlmWatch {

using someip::RemoteService;
using someip::SubscriptionState;

namespace {

/// An event is missed after so many of its periods, and not before so much time: many are sent on change.
constexpr int kMissedPeriods = 10;
constexpr auto kMissedAtLeast = std::chrono::seconds(5);

bool offersIt(const RemoteService& offer, const Selected& selected) {
    const auto& wanted = selected.service->interface();
    return offer.key.service == wanted.serviceId && offer.key.major == wanted.majorVersion;
}

std::optional<std::int64_t> integerOf(const std::optional<qdr::services::FieldValue>& value) {
    if (!value) {
        return std::nullopt;
    }
    if (const auto* const number = std::get_if<std::int64_t>(&*value)) {
        return *number;
    }
    if (const auto* const number = std::get_if<std::uint64_t>(&*value)) {
        return static_cast<std::int64_t>(*number);
    }
    return std::nullopt;
}

}  // namespace

Watcher::Watcher(someip::Runtime& runtime, const std::vector<Selected>& selection)
    : m_runtime(runtime), m_selection(selection), m_seen(selection.size()) {
    for (const Selected& one : selection) {
        m_indexFields.push_back(
            static_cast<std::size_t>(&one.event->indexField() - one.event->fields().data()));
    }
}

Watcher::~Watcher() {
    for (const auto& [key, receiver] : m_receivers) {
        m_runtime.release(receiver);
    }
}

void Watcher::search() {
    for (const Selected& one : m_selection) {
        m_runtime.findService(one.service->interface(), someip::kAnyInstance);
    }
    const auto offers = m_runtime.offers();
    for (std::size_t i = 0; i < m_selection.size(); ++i) {
        const Selected& one = m_selection[i];
        for (const RemoteService& offer : offers) {
            const std::uint16_t instance = offer.key.instance;
            const auto first = m_receivers.lower_bound({i, 0});
            const auto last = m_receivers.upper_bound({i, 0xFFFF});
            if (!offersIt(offer, one) || m_receivers.contains({i, instance}) ||
                std::distance(first, last) >= static_cast<std::ptrdiff_t>(kMaxInstances)) {
                continue;
            }
            m_receivers[{i, instance}] = m_runtime.receive(
                one.service->interface(), instance, one.event->interface(),
                [this, i, instance](auto payload, auto& report) { receive(i, instance, payload, report); });
        }
    }
}

void Watcher::receive(std::size_t selected, std::uint16_t instance, std::span<const std::uint8_t> payload,
                      someip::DecodeReport& report) {
    const auto timeUs = std::chrono::duration_cast<std::chrono::microseconds>(
                            std::chrono::system_clock::now().time_since_epoch())
                            .count();
    const Selected& one = m_selection[selected];
    std::vector<qdr::services::DecodedSample> samples;
    if (!one.event->decode(payload, samples, report)) {
        return;  // the middleware counts and logs it
    }
    const std::lock_guard lock(m_guard);
    Seen& seen = m_seen[selected];
    for (auto& values : samples) {
        const auto index = integerOf(values[m_indexFields[selected]]);
        if (!one.takes(index)) {
            seen.other = true;
            seen.otherIndex = index;
            continue;
        }
        seen.selected = true;
        seen.last = Clock::now();
        if (m_waiting.size() < kMaxWaiting) {
            m_waiting.push_back({selected, instance, timeUs, index, std::move(values)});
        } else {
            ++m_dropped;
        }
    }
    m_wake.wake();
}

std::vector<Arrival> Watcher::take() {
    m_wake.reset();
    const std::lock_guard lock(m_guard);
    return std::exchange(m_waiting, {});
}

std::uint64_t Watcher::dropped() const {
    const std::lock_guard lock(m_guard);
    return m_dropped;
}

/// Of an event whose service is offered.
std::string Watcher::missing(std::size_t selected, const RemoteService& offer) const {
    const auto* const event = m_selection[selected].event;
    const std::string peer = someip::toText(offer.peer);
    {
        const std::lock_guard lock(m_guard);
        const Seen& seen = m_seen[selected];
        const auto limit = std::max<Clock::duration>(
            kMissedAtLeast, kMissedPeriods * std::chrono::milliseconds(event->cycleMs()));
        if (seen.selected && Clock::now() - seen.last < limit) {
            return {};
        }
        if (!seen.selected && seen.other) {
            return "arrives from " + peer + ", but with index " +
                   (seen.otherIndex ? std::to_string(*seen.otherIndex) : "missing");
        }
        if (seen.selected) {
            return "has stopped arriving from " + peer;
        }
    }
    switch (m_runtime.subscriptionState({offer.key, event->eventgroupId()})) {
        case SubscriptionState::Acknowledged:
            return "is subscribed at " + peer + ", no sample yet";
        case SubscriptionState::Refused:
            return "is refused by " + peer;
        case SubscriptionState::Requested:
            return "is requested from " + peer + ", no answer yet";
        case SubscriptionState::Idle:
            break;
    }
    return "is offered by " + peer + ", not connected yet";
}

std::string Watcher::trouble(std::size_t selected, const Offers& offers) const {
    const Selected& one = m_selection[selected];
    std::string found;
    std::string other;
    for (const RemoteService& offer : offers) {
        if (offersIt(offer, one)) {
            found = missing(selected, offer);
            if (found.empty()) {
                return {};
            }
        } else if (offer.key.service == one.service->serviceId()) {
            other = "is offered by " + someip::toText(offer.peer) + " in version " +
                    std::to_string(offer.key.major) + ", described is version " +
                    std::to_string(one.service->interface().majorVersion);
        }
    }
    return !found.empty() ? found : !other.empty() ? other : "is offered by nobody";
}

std::string Watcher::trouble(std::size_t selected) const {
    return trouble(selected, m_runtime.offers());
}

std::vector<std::string> Watcher::troubles() const {
    const auto offers = m_runtime.offers();
    // By trouble: the services all of whose selected events have it, or else the events.
    std::map<std::string, std::map<std::string, std::vector<std::string>>> byTrouble;
    std::map<std::string, std::size_t> events;
    for (std::size_t i = 0; i < m_selection.size(); ++i) {
        ++events[m_selection[i].service->name()];
        if (const std::string words = trouble(i, offers); !words.empty()) {
            byTrouble[words][m_selection[i].service->name()].push_back(m_selection[i].path());
        }
    }
    std::vector<std::string> lines;
    for (const auto& [words, services] : byTrouble) {
        std::vector<std::string> names;
        for (const auto& [service, paths] : services) {
            if (paths.size() == events[service] && paths.size() > 1) {
                names.push_back(service);
            } else {
                names.insert(names.end(), paths.begin(), paths.end());
            }
        }
        lines.push_back(vlmCheck::listed(names) + ": " + words);
    }
    return lines;
}

}  // namespace vlmWatch
