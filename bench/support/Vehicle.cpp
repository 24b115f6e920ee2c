#include "support/Vehicle.h"

#include <time.h>

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>

#include "kyo/Json.h"
#include "machine/Manifest.h"
#include "qdr/services/described.h"
#include "someip/Codec.h"
#include "someip/Runtime.h"

namespace vlmBench {

using qdr::services::DescribedEvent;
using qdr::services::FieldInfo;

namespace {

/// Keeps names of services and events for structures that point to them.
const char* keptName(const std::string& name) {
    static auto* const names = new std::set<std::string>;
    return names->insert(name).first->c_str();
}

double valueOf(const FieldInfo& field) {
    if (!field.enumerators.empty()) {
        return static_cast<double>(field.enumerators.front().value);
    }
    return field.hasRange ? field.minimum + (field.maximum - field.minimum) * 0.40625 : 1;
}

template <typename T>
void put(someip::MemberWriter& out, std::uint16_t id, double value) {
    out.put(id, std::optional<T>(static_cast<T>(value)));
}

void putField(someip::MemberWriter& out, std::uint16_t id, const FieldInfo& field, double value) {
    using Put = void (*)(someip::MemberWriter&, std::uint16_t, double);
    static const std::map<std::string, Put> writers{{"bool", put<bool>},
                                                    {"uint8", put<std::uint8_t>},
                                                    {"uint16", put<std::uint16_t>},
                                                    {"uint32", put<std::uint32_t>},
                                                    {"uint64", put<std::uint64_t>},
                                                    {"int8", put<std::int8_t>},
                                                    {"int16", put<std::int16_t>},
                                                    {"int32", put<std::int32_t>},
                                                    {"int64", put<std::int64_t>},
                                                    {"float", put<float>},
                                                    {"double", put<double>}};
    if (std::string_view(field.type) == "string") {
        out.put(id, std::optional<std::string>("some text"));
    } else {
        writers.at(field.type)(out, id, value);
    }
}

/// A notification with one sample: the fields `members`, and the key's value in the key field.
std::vector<std::uint8_t> messageOf(const DescribedEvent& event, const std::vector<std::string>& members,
                                    const std::string& key, int index) {
    std::vector<std::uint8_t> structure;
    someip::MemberWriter out(structure);
    const auto& fields = event.fields();
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const auto id = static_cast<std::uint16_t>(i);
        if (fields[i].name == key) {
            putField(out, id, fields[i], index);
        } else if (std::find(members.begin(), members.end(), fields[i].name) != members.end()) {
            putField(out, id, fields[i], valueOf(fields[i]));
        }
    }
    std::vector<std::uint8_t> bytes;
    bytes.reserve(someip::kHeaderSize + 8 + structure.size());
    bytes.resize(someip::kHeaderSize);
    someip::appendBig(bytes, static_cast<std::uint32_t>(4 + structure.size()));
    someip::appendBig(bytes, static_cast<std::uint32_t>(structure.size()));
    bytes.insert(bytes.end(), structure.begin(), structure.end());
    return bytes;
}

}  // namespace

std::vector<Stream> allStreams() {
    std::vector<Stream> streams;
    for (const std::string& name : qdr::services::describedServiceNames()) {
        const auto service = qdr::services::makeDescribedService(name);
        if (service->registryKey().empty()) {
            continue;
        }
        constexpr std::string_view kProxy = "Proxy";
        Stream stream;
        stream.service = service->registryKey().substr(0, service->registryKey().size() - kProxy.size());
        stream.interface = {keptName(name), service->serviceId(), 1, 0};
        for (const DescribedEvent* event : service->events()) {
            stream.resource = event->name();
            stream.event = {keptName(event->name()), event->eventId(), event->eventgroupId()};
            const auto add = [&](const std::vector<std::string>& members, const std::string& key, int index) {
                stream.index = index;
                stream.message = messageOf(*event, members, key, index);
                streams.push_back(stream);
            };
            for (const auto& [index, members] : event->writers()) {
                add(members, event->key(), index);
            }
            if (event->writers().empty()) {
                // A value without a writer selects a collector as well.
                const std::string& first = event->members().front();
                const auto field = std::find_if(event->fields().begin(), event->fields().end(),
                                                [&](const FieldInfo& one) { return one.name == first; });
                add(event->members(), first, static_cast<int>(valueOf(*field)));
            }
        }
    }
    return streams;
}

LoadVehicle::LoadVehicle(const std::string& settings) : m_streams(allStreams()) {
    kyo::Json::Value section;
    machine::SomeIpSettings own;
    std::string error;
    if (!kyo::Json::Reader().parse(settings, section) || !machine::readSomeIpSettings(section, own, error)) {
        throw std::runtime_error("settings: " + error);
    }
    auto& runtime = someip::Runtime::process();
    if (!runtime.start(own, true)) {
        throw std::runtime_error("the vehicle's middleware does not start");
    }
    std::map<std::uint16_t, std::shared_ptr<someip::ServiceProvider>> providers;
    std::map<std::pair<std::uint16_t, std::uint16_t>, std::shared_ptr<someip::EventSender>> senders;
    for (const Stream& stream : m_streams) {
        auto& provider = providers[stream.interface.serviceId];
        if (!provider) {
            provider = std::make_shared<someip::ServiceProvider>(stream.interface, std::uint16_t{1});
            m_providers.push_back(provider);
        }
        auto& sender = senders[{stream.interface.serviceId, stream.event.eventId}];
        if (!sender) {
            sender = runtime.addEvent(provider, stream.event);
        }
        m_senders.push_back(sender);
    }
    for (const auto& provider : m_providers) {
        runtime.offer(provider);
    }
}

LoadVehicle::~LoadVehicle() {
    someip::Runtime::process().stop();
}

bool LoadVehicle::isSubscribed() const {
    return std::all_of(m_senders.begin(), m_senders.end(),
                       [](const auto& sender) { return sender->subscribers() > 0; });
}

std::uint64_t LoadVehicle::send(double rate, double seconds, double& took) {
    using Clock = std::chrono::steady_clock;
    std::uint64_t sent = 0;
    const auto start = Clock::now();
    for (auto next = start;; next += std::chrono::milliseconds(1)) {
        std::this_thread::sleep_until(next);
        const double elapsed = std::min(seconds, std::chrono::duration<double>(Clock::now() - start).count());
        const auto due = static_cast<std::uint64_t>(elapsed * rate);
        for (; sent < due; ++sent) {
            m_senders[m_next]->send(m_streams[m_next].message);
            m_next = (m_next + 1) % m_streams.size();
        }
        if (elapsed >= seconds) {
            break;
        }
    }
    took = std::chrono::duration<double>(Clock::now() - start).count();
    return sent;
}

}  // namespace vlmBench
