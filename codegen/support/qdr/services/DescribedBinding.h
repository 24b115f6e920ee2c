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

/// An event's description without summary, key, writers and members.
EventDescription describeEvent(const ac::com::EventInterface& event, std::span<const FieldRow> fields,
                               std::span<const IndexInfo> indexes, unsigned int cycleMs);
/// Splits a text at its single blanks.
std::vector<std::string> splitNames(std::string_view names);

/// Fills one sample from values by name. Remembers the first error.
class SampleSource {
  public:
    SampleSource(const EventDescription& event, const FieldValues& values)
        : m_event(event), m_values(values) {}

    template <typename T>
    void field(std::size_t field, eb::com::optional<T>& out) {
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

/// Copies one sample's fields to their places in a decoded sample.
class SampleReader {
  public:
    explicit SampleReader(DecodedSample& out) : m_out(out) {}

    template <typename T>
    void field(std::size_t field, const eb::com::optional<T>& in) {
        if (in) {
            m_out[field] = valueOf(*in);
        }
    }

  private:
    template <typename T>
    static FieldValue valueOf(const T& value) {
        if constexpr (std::is_enum_v<T>) {
            return valueOf(static_cast<std::underlying_type_t<T>>(value));
        } else if constexpr (std::is_same_v<T, bool> || std::is_same_v<T, std::string>) {
            return value;
        } else if constexpr (std::is_floating_point_v<T>) {
            return static_cast<double>(value);
        } else if constexpr (std::is_signed_v<T>) {
            return std::int64_t{value};
        } else {
            return std::uint64_t{value};
        }
    }

    DecodedSample& m_out;
};

/// Data-driven access to an event of a skeleton.
template <class DT>
class BoundEvent final : public DescribedEvent {
  public:
    using Fill = void (*)(SampleSource& from, DT& sample);
    using Read = void (*)(SampleReader& to, const DT& sample);

    BoundEvent(EventDescription description, ac::com::SkeletonEvent<DT>& event, Fill fill, Read read)
        : DescribedEvent(std::move(description)), m_event(event), m_fill(fill), m_read(read) {}

    bool send(const std::vector<FieldValues>& values) override {
        std::vector<DT> samples;
        return makeSamples(values, samples) && m_event.Send(samples);
    }

    bool sendFaulty(const std::vector<FieldValues>& values, const someip::WireFault& fault) override {
        std::vector<DT> samples;
        return makeSamples(values, samples) && m_event.SendFaulty(samples, fault);
    }

    bool decode(std::span<const std::uint8_t> payload, std::vector<DecodedSample>& samples,
                someip::DecodeReport& report) const override {
        std::vector<DT> decoded;
        const bool good = someip::decodeSamples(payload, decoded, report);
        samples.assign(decoded.size(), DecodedSample(fields().size()));
        for (std::size_t i = 0; i < decoded.size(); ++i) {
            SampleReader reader(samples[i]);
            m_read(reader, decoded[i]);
        }
        return good;
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
    const Read m_read;
};

/// Data-driven access to a service; owns its skeleton.
template <class Skeleton>
class BoundService final : public DescribedService {
  public:
    BoundService(std::string registryKey, std::string catalogName, const char* summary)
        : m_registryKey(std::move(registryKey)), m_catalogName(std::move(catalogName)), m_summary(summary) {}

    Skeleton& skeleton() { return m_skeleton; }

    /// `visit(visitor, sample)` calls visitor.field(data id, member) for each field, for SampleSource and
    /// SampleReader.
    template <class DT, class Visit>
    void add(EventDescription description, ac::com::SkeletonEvent<DT>& event, Visit visit) {
        m_events.push_back(std::make_unique<BoundEvent<DT>>(std::move(description), event, visit, visit));
    }

    const std::string& name() const override { return m_name; }
    const std::string& registryKey() const override { return m_registryKey; }
    const std::string& catalogName() const override { return m_catalogName; }
    const ac::com::ServiceInterface& interface() const override { return m_skeleton.serviceInterface(); }
    const char* summary() const override { return m_summary; }

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
    Skeleton m_skeleton;
    const std::string m_name{m_skeleton.serviceInterface().name};
    const std::string m_registryKey;
    const std::string m_catalogName;
    const char* const m_summary;
    std::vector<std::unique_ptr<DescribedEvent>> m_events;  ///< refer to m_skeleton
};

}  // namespace qdr::services
