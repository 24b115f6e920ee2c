#pragma once
/// The described services as data: vehicles, watchers, tests and benchmarks offer any service, send any event
/// and decode any payload without naming a generated type.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "ac/com/types.h"
#include "someip/Samples.h"
#include "someip/WireFault.h"

namespace qdr::services {

using FieldValue = std::variant<bool, std::int64_t, std::uint64_t, double, std::string>;
/// The fields of one sample by name; a missing field is an optional without a value.
using FieldValues = std::map<std::string, FieldValue>;
/// One decoded sample: a value, or none, for each field in the order of DescribedEvent::fields(). Signed
/// integers are std::int64_t, unsigned ones std::uint64_t, float and double are double; an enumeration has
/// its number.
using DecodedSample = std::vector<std::optional<FieldValue>>;

struct EnumeratorInfo {
    const char* name;
    std::int64_t value;
};

struct FieldInfo {
    const char* name;
    const char* type;  ///< "double", "uint8", "bool", "string", ...; the underlying type of an enumeration
    const char* unit;  ///< may be empty
    const char* meaning;
    bool hasRange = false;
    double minimum = 0;
    double maximum = 0;
    std::vector<EnumeratorInfo> enumerators{};  ///< empty unless the field is an enumeration

    /// The name of an enumerator; empty if there is none with that value.
    std::string_view nameOf(std::int64_t value) const;
};

/// A value of the key of an event, or of the first field of one without a key: what a collector selects.
struct IndexInfo {
    std::int64_t value;
    const char* name;     ///< may be empty
    const char* meaning;  ///< may be empty
};

struct EventDescription {
    std::string name;
    ac::com::EventInterface interface {};
    const char* summary = "";
    std::vector<IndexInfo> indexes{};  ///< ascending
    std::string key;                   ///< the member that selects a writer; empty for an unkeyed event
    unsigned int cycleMs = 0;          ///< natural period
    std::vector<FieldInfo> fields{};   ///< position = data id on the wire
    std::map<int, std::vector<std::string>> writers{};  ///< keyed: members of a record, by key value
    std::vector<std::string> members{};                 ///< unkeyed: members of a record, in order
};

/// One event of a described service. Lives as long as its service.
class DescribedEvent {
  public:
    explicit DescribedEvent(EventDescription description) : m_description(std::move(description)) {}
    virtual ~DescribedEvent() = default;
    DescribedEvent(const DescribedEvent&) = delete;
    DescribedEvent& operator=(const DescribedEvent&) = delete;

    const std::string& name() const { return m_description.name; }
    const ac::com::EventInterface& interface() const { return m_description.interface; }
    std::uint16_t eventId() const { return m_description.interface.eventId; }
    std::uint16_t eventgroupId() const { return m_description.interface.eventgroupId; }
    const char* summary() const { return m_description.summary; }
    const std::vector<IndexInfo>& indexes() const { return m_description.indexes; }
    const std::string& key() const { return m_description.key; }
    unsigned int cycleMs() const { return m_description.cycleMs; }
    const std::vector<FieldInfo>& fields() const { return m_description.fields; }
    const std::map<int, std::vector<std::string>>& writers() const { return m_description.writers; }
    const std::vector<std::string>& members() const { return m_description.members; }
    /// Returns nullptr for an unknown name.
    const FieldInfo* find(std::string_view name) const;
    /// The field with a sample's index: the key, or the first field of an event without one.
    const FieldInfo& indexField() const;
    /// The field whose state the given one has: speed2D for speed2DValueType, temperaturePhysicalValue for
    /// temperatureValueType; nullptr for other fields.
    const FieldInfo* fieldOfState(std::string_view name) const;

    /// Sends one notification with these samples to each subscriber; does not wait for them. Numbers are
    /// converted to the field's type if they fit; an enumeration also accepts an enumerator's name. Returns
    /// false and sends nothing when a field is unknown or a value does not fit (error() gives the reason), or
    /// when the network refuses. One thread at a time per event.
    virtual bool send(const std::vector<FieldValues>& samples) = 0;
    /// As send(), with a deliberate error in the message.
    virtual bool sendFaulty(const std::vector<FieldValues>& samples, const someip::WireFault& fault) = 0;
    /// Replaces `samples` by those of a payload. Returns false, with a filled `report`, for a malformed one.
    /// Any thread.
    virtual bool decode(std::span<const std::uint8_t> payload, std::vector<DecodedSample>& samples,
                        someip::DecodeReport& report) const = 0;
    /// Why the last send was refused before it reached the network, with event and field; else empty.
    const std::string& error() const { return m_error; }

    virtual std::size_t subscribers() const = 0;
    /// `handler` is called on a thread of the middleware with the peer's address when a peer subscribes or
    /// leaves.
    virtual void setSubscriptionHandler(
        std::function<void(const std::string& peer, bool subscribed)> handler) = 0;

  protected:
    EventDescription m_description;
    std::string m_error;
};

/// One described service; owns a skeleton. Needs a running middleware component.
class DescribedService {
  public:
    virtual ~DescribedService() = default;

    virtual const std::string& name() const = 0;         ///< "GNSS"
    virtual const std::string& registryKey() const = 0;  ///< "GNSSProxy"; empty when no adapter is registered
    virtual const std::string& catalogName() const = 0;  ///< "GNSS"; empty when it is not in the catalog
    virtual const ac::com::ServiceInterface& interface() const = 0;
    virtual const char* summary() const = 0;
    std::uint16_t serviceId() const { return interface().serviceId; }

    virtual bool offer() = 0;
    virtual void stopOffer() = 0;
    /// In the order of the description. The service owns the events.
    virtual std::vector<DescribedEvent*> events() = 0;
};

/// The names of all described services, ascending.
const std::vector<std::string>& describedServiceNames();
/// Creates the service with its skeleton, not yet offered. Returns nullptr for an unknown name.
std::unique_ptr<DescribedService> makeDescribedService(const std::string& name);

}  // namespace qdr::services
