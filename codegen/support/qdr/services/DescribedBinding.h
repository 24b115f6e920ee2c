#pragma once
/// Implements the data-driven access of described.h with the generated skeletons and data types.
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "com/Skeleton.h"
#include "eb/com/optional.h"
#include "qdr/services/described.h"

namespace qdr::services {

/// A field as constant data in generated code, which compiles fast.
struct FieldRow {
    const char* name;
    const char* type;
    const char* unit;
    const char* meaning;
    std::span<const EnumeratorInfo> enumerators = {};
    bool hasRange = false;
    double minimum = 0;
    double maximum = 0;
};

/// An event's description without key, writers and members.
EventDescription describeEvent(const ac::com::EventInterface& event, std::span<const FieldRow> fields,
                               unsigned int cycleMs);
/// Splits a text at its single blanks.
std::vector<std::string> splitNames(std::string_view names);

/// Fills one sample from values by name. Remembers the first error.
class SampleSource {
  public:
    SampleSource(const EventDescription& event, const FieldValues& values)
        : m_event(event), m_values(values) {}

    template <typename T>
    void take(std::size_t field, eb::com::optional<T>& out) {
        const FieldValue* const value = find(field);
        if (value == nullptr) {
            return;
        }
        if constexpr (std::is_enum_v<T>) {
            eb::com::optional<std::underlying_type_t<T>> number;
            takeInteger(field, *value, number);
            if (number) {
                out = static_cast<T>(*number);
            }
        } else if constexpr (std::is_same_v<T, std::string>) {
            out = text(field, *value);
        } else if constexpr (std::is_same_v<T, bool>) {
            takeInteger(field, *value, out);
        } else if constexpr (std::is_integral_v<T>) {
            takeInteger(field, *value, out);
        } else {
            if (const auto number = real(field, *value)) {
                out = static_cast<T>(*number);
            }
        }
    }

    /// The first error (a value that does not fit, a name that is no field), or empty.
    std::string error();

  private:
    template <typename T>
    void takeInteger(std::size_t field, const FieldValue& value, eb::com::optional<T>& out) {
        constexpr bool isSigned = std::is_signed_v<T>;
        if constexpr (isSigned) {
            if (const auto number = signedInteger(field, value, std::numeric_limits<T>::min(),
                                                  std::numeric_limits<T>::max())) {
                out = static_cast<T>(*number);
            }
        } else {
            if (const auto number = unsignedInteger(field, value, std::numeric_limits<T>::max())) {
                out = static_cast<T>(*number);
            }
        }
    }

    const FieldValue* find(std::size_t field);
    std::optional<std::int64_t> signedInteger(std::size_t field, const FieldValue& value,
                                              std::int64_t minimum, std::int64_t maximum);
    std::optional<std::uint64_t> unsignedInteger(std::size_t field, const FieldValue& value,
                                                 std::uint64_t maximum);
    std::optional<double> real(std::size_t field, const FieldValue& value);
    std::optional<std::string> text(std::size_t field, const FieldValue& value);
    void refuse(std::size_t field);

    const EventDescription& m_event;
    const FieldValues& m_values;
    std::size_t m_found = 0;
    std::string m_error;
};

/// Data-driven access to an event of a skeleton.
template <class DT>
class BoundEvent final : public DescribedEvent {
  public:
    using Fill = void (*)(SampleSource& from, DT& sample);

    BoundEvent(EventDescription description, ac::com::SkeletonEvent<DT>& event, Fill fill)
        : DescribedEvent(std::move(description)), m_event(event), m_fill(fill) {}

    bool send(const std::vector<FieldValues>& values) override {
        std::vector<DT> samples;
        return makeSamples(values, samples) && m_event.Send(samples);
    }

    bool sendFaulty(const std::vector<FieldValues>& values, const someip::WireFault& fault) override {
        std::vector<DT> samples;
        return makeSamples(values, samples) && m_event.SendFaulty(samples, fault);
    }

    std::size_t subscribers() const override { return m_event.subscribers(); }

    void setSubscriptionHandler(
        std::function<void(const std::string& peer, bool subscribed)> handler) override {
        m_event.setSubscriptionHandler(std::move(handler));
    }

  private:
    bool makeSamples(const std::vector<FieldValues>& values, std::vector<DT>& samples) {
        m_error.clear();
        samples.resize(values.size());
        for (std::size_t i = 0; i < values.size(); ++i) {
            SampleSource source(m_description, values[i]);
            m_fill(source, samples[i]);
            m_error = source.error();
            if (!m_error.empty()) {
                return false;
            }
        }
        return true;
    }

    ac::com::SkeletonEvent<DT>& m_event;
    const Fill m_fill;
};

/// Data-driven access to a service; owns its skeleton.
template <class Skeleton>
class BoundService final : public DescribedService {
  public:
    BoundService(std::string name, std::string registryKey, std::string catalogName, std::uint16_t serviceId)
        : m_name(std::move(name)),
          m_registryKey(std::move(registryKey)),
          m_catalogName(std::move(catalogName)),
          m_serviceId(serviceId) {}

    Skeleton& skeleton() { return m_skeleton; }

    template <class DT>
    void add(EventDescription description, ac::com::SkeletonEvent<DT>& event,
             std::type_identity_t<typename BoundEvent<DT>::Fill> fill) {
        m_events.push_back(std::make_unique<BoundEvent<DT>>(std::move(description), event, fill));
    }

    const std::string& name() const override { return m_name; }
    const std::string& registryKey() const override { return m_registryKey; }
    const std::string& catalogName() const override { return m_catalogName; }
    std::uint16_t serviceId() const override { return m_serviceId; }

    bool offer() override { return m_skeleton.OfferService(); }
    void stopOffer() override { m_skeleton.StopOfferService(); }

    std::vector<DescribedEvent*> events() override {
        std::vector<DescribedEvent*> result;
        for (const auto& event : m_events) {
            result.push_back(event.get());
        }
        return result;
    }

  private:
    const std::string m_name;
    const std::string m_registryKey;
    const std::string m_catalogName;
    const std::uint16_t m_serviceId;
    Skeleton m_skeleton;
    std::vector<std::unique_ptr<DescribedEvent>> m_events;  ///< refer to m_skeleton
};

}  // namespace qdr::services
