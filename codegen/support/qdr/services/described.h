#pragma once
/// The described services as data: what a vehicle, a test or a bench needs to offer any of them and to send
/// any of its events without naming a generated type.
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
/// The fields of one sample by name; a field that is not in it is an optional without a value.
using FieldValues = std::map<std::string, FieldValue>;

struct EnumeratorInfo {
    const char* name;
    std::int64_t value;
};

struct FieldInfo {
    const char* name;
    const char* type;  ///< "double", "uint8", "bool", "string", ...; of an enumeration its underlying type
    const char* unit;  ///< empty where the description gives none
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
    std::map<int, std::vector<std::string>> writers{};  ///< keyed: what a record holds for each key value
    std::vector<std::string> members{};                 ///< unkeyed: what a record holds, in order
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

    /// Sends one notification with these samples to each subscriber; does not block on them. Numbers convert
    /// to the field's type when they fit; an enumeration also takes an enumerator's name. False when a field
    /// is unknown or a value does not fit, with the reason in `error`, or when the network refuses; nothing
    /// is sent then. Not for two threads at once on the same event.
    virtual bool send(const std::vector<FieldValues>& samples) = 0;
    /// The same with a fault in what goes out.
    virtual bool sendFaulty(const std::vector<FieldValues>& samples, const someip::WireFault& fault) = 0;
    /// Why the last send was refused before it reached the network, naming event and field; else empty.
    const std::string& error() const { return m_error; }

    virtual std::size_t subscribers() const = 0;
    /// Called on a middleware thread with the peer's address each time one subscribes or leaves.
    virtual void setSubscriptionHandler(
        std::function<void(const std::string& peer, bool subscribed)> handler) = 0;

  protected:
    EventDescription m_description;
    std::string m_error;
};

/// One described service with a skeleton of its own. Needs a running middleware component.
class DescribedService {
  public:
    virtual ~DescribedService() = default;

    virtual const std::string& name() const = 0;         ///< "GNSS"
    virtual const std::string& registryKey() const = 0;  ///< "GNSSProxy"; empty when no adapter is registered
    virtual const std::string& catalogName() const = 0;  ///< "GNSS"; empty when it is not in the catalog
    virtual std::uint16_t serviceId() const = 0;

    virtual bool offer() = 0;
    virtual void stopOffer() = 0;
    /// In the order of the description. The pointers are valid as long as the service.
    virtual std::vector<DescribedEvent*> events() = 0;
};

/// The names of all described services, ascending.
const std::vector<std::string>& describedServiceNames();
/// Makes the service with its skeleton, not yet offered; empty for a name that is not described.
std::unique_ptr<DescribedService> makeDescribedService(const std::string& name);

}  // namespace qdr::services
