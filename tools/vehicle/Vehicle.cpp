#include "tools/vehicle/Vehicle.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <sstream>

#include "kyo/DateTime.h"
#include "tools/check/Suggest.h"

namespace vlmVehicle {

namespace {

constexpr double modelStep = 0.02;  // s
constexpr double longestGap = 5;    // s of drive to catch up after the process was suspended
constexpr double latest = 0.5;      // s of delay after which notifications are left out

template <typename... Arguments>
std::string format(const char* pattern, Arguments... arguments) {
    std::array<char, 512> buffer{};
    std::snprintf(buffer.data(), buffer.size(), pattern, arguments...);
    return buffer.data();
}

}  // namespace

Vehicle::Vehicle(VehicleOptions options, Print print)
    : m_options(std::move(options)), m_print(std::move(print)), m_model(m_options.seed) {}

bool Vehicle::prepare(std::string& error) {
    Scenario scenario = Scenario::plainDrive();
    if (!createServices(error) || !readRecordings(error) || !readScenario(scenario, error) ||
        !scheduleFaults(error)) {
        return false;
    }
    driveToStart(std::move(scenario));
    return true;
}

bool Vehicle::createServices(std::string& error) {
    const auto& known = qdr::services::describedServiceNames();
    for (const auto& name : m_options.services.empty() ? known : m_options.services) {
        auto service = qdr::services::makeDescribedService(name);
        if (!service) {
            const std::string hint = vlmCheck::didYouMean(name, known);
            error = "no service is called \"" + name + "\"; " +
                    (hint.empty() ? "known are " + vlmCheck::listed(known) : hint);
            return false;
        }
        for (auto* event : service->events()) {
            EventState state;
            state.event = event;
            state.service = name;
            state.path = name + "." + event->name();
            state.period = period(state);
            event->setSubscriptionHandler(
                [print = m_print, path = state.path](const std::string& peer, bool subscribed) {
                    print(peer + (subscribed ? " subscribed to " : " left ") + path);
                });
            m_events.push_back(std::move(state));
        }
        m_services.push_back(std::move(service));
    }
    for (const auto& [path, milliseconds] : m_options.periods) {
        if (find(path) == nullptr) {
            return refuseEvent(path, error);
        }
    }
    return true;
}

bool Vehicle::readRecordings(std::string& error) {
    for (const auto& [path, file] : m_options.recordings) {
        EventState* const state = find(path);
        if (state == nullptr) {
            return refuseEvent(path, error);
        }
        CsvRecording recording;
        if (!CsvRecording::readFile(file, *state->event, recording, error)) {
            return false;
        }
        state->recording = std::move(recording);
    }
    return m_options.track.empty() || GpxTrack::readFile(m_options.track, m_track, error);
}

bool Vehicle::readScenario(Scenario& scenario, std::string& error) {
    if (!m_options.scenario.empty() && !Scenario::readFile(m_options.scenario, scenario, error)) {
        return false;
    }
    for (const auto& text : scenario.faults) {
        Fault fault;
        if (!Fault::parseTimed(text, fault, error)) {
            error = m_options.scenario + ": faults: " + error;
            return false;
        }
        m_options.faults.push_back(fault);
    }
    const auto areGood = [&](const std::vector<FieldOverride>& overrides) {
        return std::all_of(overrides.begin(), overrides.end(),
                           [&](const auto& entry) { return check(entry, error); });
    };
    return areGood(scenario.overrides) &&
           std::all_of(scenario.phases.begin(), scenario.phases.end(),
                       [&](const auto& phase) { return areGood(phase.overrides); });
}

bool Vehicle::check(const FieldOverride& entry, std::string& error) {
    const EventState* const state = find(entry.service + "." + entry.event);
    if (state == nullptr) {  // the service is not offered, or the name is wrong
        const auto& known = qdr::services::describedServiceNames();
        const bool isKnown = std::find(known.begin(), known.end(), entry.service) != known.end();
        return isKnown || refuseEvent(entry.service + "." + entry.event, error);
    }
    std::vector<std::string> names;
    for (const auto& field : state->event->fields()) {
        names.emplace_back(field.name);
    }
    if (std::find(names.begin(), names.end(), entry.field) != names.end()) {
        return true;
    }
    error = m_options.scenario + ": " + state->path + " has no field \"" + entry.field + "\"; " +
            vlmCheck::didYouMean(entry.field, names);
    return false;
}

bool Vehicle::scheduleFaults(std::string& error) {
    for (const auto& fault : m_options.faults) {
        if (!concernsSomething(fault)) {
            return refuseEvent(fault.service + (fault.event == "*" ? "" : "." + fault.event), error);
        }
        if (fault.at >= m_options.startTime) {
            m_timed.push_back(fault);
        }
    }
    std::stable_sort(m_timed.begin(), m_timed.end(),
                     [](const auto& a, const auto& b) { return a.at < b.at; });
    return true;
}

void Vehicle::driveToStart(Scenario scenario) {
    m_player.emplace(std::move(scenario));
    m_player->begin(m_model);
    const auto steps = static_cast<long>(std::ceil(m_options.startTime * m_options.timeFactor / modelStep));
    for (long step = 0; step < steps; ++step) {
        m_player->advance(m_model, modelStep);
        m_model.step(modelStep);
    }
}

Vehicle::EventState* Vehicle::find(const std::string& path) {
    const auto found =
        std::find_if(m_events.begin(), m_events.end(), [&](const auto& state) { return state.path == path; });
    return found == m_events.end() ? nullptr : &*found;
}

bool Vehicle::refuseEvent(const std::string& path, std::string& error) const {
    std::vector<std::string> paths;
    for (const auto& state : m_events) {
        paths.push_back(state.path);
    }
    const std::string hint = vlmCheck::didYouMean(path, paths);
    error = "no offered event is called \"" + path + "\"" + (hint.empty() ? "" : "; " + hint);
    return false;
}

double Vehicle::period(const EventState& state) const {
    const auto single = m_options.periods.find(state.path);
    const unsigned milliseconds = single != m_options.periods.end() ? single->second : m_options.periodMs;
    if (milliseconds != 0) {
        return milliseconds / 1000.0;
    }
    return std::max(1U, state.event->cycleMs()) / 1000.0 / m_options.rate;
}

bool Vehicle::concernsSomething(const Fault& fault) const {
    return std::any_of(m_events.begin(), m_events.end(),
                       [&](const auto& state) { return fault.concerns(state.service, state.event->name()); });
}

void Vehicle::start(double now) {
    m_start = now;
    m_driven = 0;
    std::size_t index = 0;
    for (auto& service : m_services) {
        std::string events;
        for (const auto* event : service->events()) {
            auto& state = m_events[index];
            // Spread over the period, so that events do not all come at the same moment.
            const double offset =
                state.recording ? 0 : state.period * std::fmod(0.618 * static_cast<double>(index + 1), 1);
            m_due.push({offset, index++});
            events += (events.empty() ? "" : ", ") + event->name();
            events += state.recording ? " recorded" : format(" %g ms", state.period * 1000);
        }
        const bool offered = service->offer();
        m_print((offered ? "offers " : "cannot offer ") + service->name() +
                format(" 0x%04x (", service->serviceId()) + events + ")");
    }
    m_print(format("%zu services, %zu events, drive \"%s\"%s", m_services.size(), m_events.size(),
                   m_player->scenario().name.c_str(),
                   m_track.points().empty() ? "" : " along a recorded track"));
}

void Vehicle::driveTo(double now) {
    double left = (now - m_driven) * m_options.timeFactor;
    if (left > longestGap * m_options.timeFactor) {
        left = longestGap * m_options.timeFactor;
    }
    m_driven = now;
    while (left > 0) {
        const double dt = std::min(left, modelStep);
        m_player->advance(m_model, dt);
        if (!m_track.points().empty()) {
            double time = m_model.state().time;
            if (m_options.loop) {
                time = std::fmod(time, m_track.duration());
            }
            const auto point = m_track.at(time);
            m_model.follow(point.latitude, point.longitude, point.altitude, point.speed, point.heading);
        }
        m_model.step(dt);
        left -= dt;
    }
}

double Vehicle::advance(double now) {
    m_elapsed = now - m_start;
    driveTo(m_elapsed);
    const std::string phase = m_player->phase();
    if (phase != m_lastPhase) {
        m_lastPhase = phase;
        m_print(phase.empty() ? "the scenario is over; the vehicle stays as it is" : "phase: " + phase);
    }
    while (m_nextFault < m_timed.size() && m_timed[m_nextFault].at - m_options.startTime <= m_elapsed) {
        apply(m_timed[m_nextFault++]);
    }
    m_silences.erase(
        std::remove_if(m_silences.begin(), m_silences.end(),
                       [&](const auto& silence) { return silence.until != 0 && silence.until <= m_elapsed; }),
        m_silences.end());
    while (!m_due.empty() && m_due.top().time <= m_elapsed && !m_restart) {
        Due due = m_due.top();
        m_due.pop();
        auto& state = m_events[due.event];
        if (!state.recording) {
            send(state);
            due.time += state.period;
            if (m_elapsed - due.time > latest) {
                const double missed = std::ceil((m_elapsed - due.time) / state.period);
                m_late += static_cast<std::uint64_t>(missed);
                due.time += missed * state.period;
            }
            m_due.push(due);
            continue;
        }
        send(state);
        const auto& notifications = state.recording->notifications();
        if (++state.next == notifications.size()) {
            if (!m_options.loop) {
                continue;
            }
            state.next = 0;
            const double length = notifications.back().time;
            state.recordingStart +=
                (length > 0 ? length + length / static_cast<double>(notifications.size()) : state.period) /
                m_options.timeFactor;
        }
        due.time = state.recordingStart + notifications[state.next].time / m_options.timeFactor;
        m_due.push(due);
    }
    double next = m_elapsed + 0.1;
    if (!m_due.empty()) {
        next = std::min(next, m_due.top().time);
    }
    return m_start + next;
}

void Vehicle::send(EventState& state) {
    const bool silent = std::any_of(m_silences.begin(), m_silences.end(), [&](const auto& silence) {
        return silence.fault.concerns(state.service, state.event->name());
    });
    if (silent || state.event->subscribers() == 0) {
        return;
    }
    std::vector<qdr::services::FieldValues> samples =
        state.recording
            ? state.recording->notifications()[state.next].samples
            : m_samples.make(state.service, *state.event, m_model.state(), kyo::DateTime::getCurrentTimeMs(),
                             m_player->overrides(m_model.state()));
    if (samples.empty()) {
        return;
    }
    const auto fault = std::find_if(m_wireFaults.begin(), m_wireFaults.end(), [&](const auto& pending) {
        return pending.count > 0 && pending.concerns(state.service, state.event->name());
    });
    bool sent = false;
    if (fault != m_wireFaults.end()) {
        sent = state.event->sendFaulty(samples, {fault->wire});
        state.faulty += 1;
        m_print("fault: " + state.path + " sent " + fault->text);
        if (--fault->count == 0) {
            m_wireFaults.erase(fault);
        }
    } else {
        sent = state.event->send(samples);
    }
    if (sent) {
        state.samples += samples.size();
        state.notifications += 1;
        state.lastError.clear();
        return;
    }
    state.failures += 1;
    const std::string reason = state.event->error().empty() ? "the network refused it" : state.event->error();
    if (reason != state.lastError) {  // once per change, not per sample
        state.lastError = reason;
        m_print("not sent: " + state.path + ": " + reason);
    }
}

void Vehicle::apply(const Fault& fault) {
    m_print("fault: " + fault.text);
    const auto forServices = [&](auto&& action) {
        for (auto& service : m_services) {
            if (fault.service == "*" || fault.service == service->name()) {
                action(*service);
            }
        }
    };
    switch (fault.kind) {
        case Fault::Wire:
            m_wireFaults.push_back(fault);
            break;
        case Fault::Silence:
            m_silences.push_back({fault, fault.seconds > 0 ? m_elapsed + fault.seconds : 0});
            break;
        case Fault::Speak:
            m_silences.erase(
                std::remove_if(m_silences.begin(), m_silences.end(),
                               [&](const auto& silence) {
                                   return fault.service == "*" ||
                                          (silence.fault.service == fault.service &&
                                           (fault.event == "*" || silence.fault.event == fault.event));
                               }),
                m_silences.end());
            break;
        case Fault::Stop:
            forServices([](auto& service) { service.stopOffer(); });
            break;
        case Fault::Offer:
            forServices([](auto& service) { service.offer(); });
            break;
        case Fault::Restart:
            m_restart = true;
            break;
    }
}

bool Vehicle::command(const std::string& line, std::string& error) {
    std::istringstream stream(line);
    std::string word;
    if (!(stream >> word)) {
        return true;
    }
    if (word == "status") {
        m_print(statusLine());
        return true;
    }
    if (word == "help") {
        m_print("set CONTROL VALUE | status | quit | FAULT [EVENT [NUMBER]] with FAULT one of: ");
        for (const auto& fault : faultWords()) {
            m_print("  " + fault);
        }
        return true;
    }
    if (word == "set") {
        std::string control;
        std::string value;
        if (!(stream >> control >> value)) {
            error = "\"set CONTROL VALUE\" is expected";
            return false;
        }
        return setControl(m_model.controls(), control, value, error);
    }
    Fault fault;
    if (!Fault::parse(line, fault, error)) {
        error += "; \"help\" lists the commands";
        return false;
    }
    if (!concernsSomething(fault)) {
        error = "no offered event is called \"" + fault.service +
                (fault.event == "*" ? "" : "." + fault.event) + "\"";
        return false;
    }
    apply(fault);
    return true;
}

void Vehicle::stop() {
    for (auto& service : m_services) {
        service->stopOffer();
    }
}

std::string Vehicle::statusLine() const {
    std::uint64_t samples = 0;
    std::uint64_t notifications = 0;
    std::uint64_t failures = 0;
    std::size_t subscriptions = 0;
    for (const auto& state : m_events) {
        samples += state.samples;
        notifications += state.notifications;
        failures += state.failures;
        subscriptions += state.event->subscribers();
    }
    const auto& s = m_model.state();
    std::string line = format(
        "%.0f s: %.0f km/h, %.1f %%, %.0f km range; %zu subscriptions, %llu samples in %llu notifications",
        m_options.startTime + m_elapsed, s.speedKmh(), s.stateOfCharge, s.range(), subscriptions,
        static_cast<unsigned long long>(samples), static_cast<unsigned long long>(notifications));
    if (failures != 0) {
        line += format(", %llu not sent", static_cast<unsigned long long>(failures));
    }
    if (m_late != 0) {
        line += format(", %llu left out to keep pace", static_cast<unsigned long long>(m_late));
    }
    return line;
}

std::vector<std::string> Vehicle::summary() const {
    std::vector<std::string> lines;
    for (const auto& state : m_events) {
        if (state.notifications + state.failures == 0) {
            continue;
        }
        std::string line = format("%-52s %8llu samples %8llu notifications", state.path.c_str(),
                                  static_cast<unsigned long long>(state.samples),
                                  static_cast<unsigned long long>(state.notifications));
        if (state.failures != 0) {
            line += format(" %llu not sent", static_cast<unsigned long long>(state.failures));
        }
        if (state.faulty != 0) {
            line += format(" %llu with a fault", static_cast<unsigned long long>(state.faulty));
        }
        lines.push_back(std::move(line));
    }
    lines.push_back(statusLine());
    return lines;
}

bool Vehicle::finished() const {
    if (m_options.loop) {
        return false;
    }
    const bool recorded = !m_options.recordings.empty() || !m_track.points().empty();
    const bool trackEnded = m_track.points().empty() || m_model.state().time > m_track.duration();
    const bool rowsEnded = std::all_of(m_events.begin(), m_events.end(), [](const auto& state) {
        return !state.recording || state.next >= state.recording->notifications().size();
    });
    return recorded ? trackEnded && rowsEnded : m_player->over();
}

}  // namespace vlmVehicle
