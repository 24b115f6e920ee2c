#pragma once
/// The described services as data: vehicles, tests and benchmarks offer any service and send any event
/// without naming a generated type.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "someip/WireFault.h"

namespace qdr::services {

using FieldValue = std::variant<bool, std::int64_t, std::uint64_t, double, std::string>;
/// The fields of one sample by name; a missing field is an optional without a value.
using FieldValues = std::map<std::string, FieldValue>;

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
};

struct EventDescription {
    std::string name;
    std::uint16_t eventId = 0;
    std::uint16_t eventgroupId = 0;
    std::string key;                  ///< the member that selects a writer; empty for an unkeyed event
    unsigned int cycleMs = 0;         ///< natural period
    std::vector<FieldInfo> fields{};  ///< position = data id on the wire
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
    std::uint16_t eventId() const { return m_description.eventId; }
    std::uint16_t eventgroupId() const { return m_description.eventgroupId; }
    const std::string& key() const { return m_description.key; }
    unsigned int cycleMs() const { return m_description.cycleMs; }
    const std::vector<FieldInfo>& fields() const { return m_description.fields; }
    const std::map<int, std::vector<std::string>>& writers() const { return m_description.writers; }
    const std::vector<std::string>& members() const { return m_description.members; }

    /// Sends one notification with these samples to each subscriber; does not wait for them. Numbers are
    /// converted to the field's type if they fit; an enumeration also accepts an enumerator's name. Returns
    /// false and sends nothing when a field is unknown or a value does not fit (error() gives the reason), or
    /// when the network refuses. One thread at a time per event.
    virtual bool send(const std::vector<FieldValues>& samples) = 0;
    /// As send(), with a deliberate error in the message.
    virtual bool sendFaulty(const std::vector<FieldValues>& samples, const someip::WireFault& fault) = 0;
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
    virtual std::uint16_t serviceId() const = 0;

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
