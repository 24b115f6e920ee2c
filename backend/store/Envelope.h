#pragma once
/// From an envelope's text to rows. Nothing of it is trusted.
#include <simdjson.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "backend/store/Events.h"

namespace vlmBackend::store {

struct Sample {
    const Event* event = nullptr;
    std::int64_t instance = 0;
    std::int64_t measuredMs = 0;
    std::string_view values;  ///< its "propertyValuePairs", sorted by length of name, then by name
};

/// Part of an envelope that fits no event.
struct Refused {
    std::string reason;
    std::string text;  ///< empty: the whole envelope, in place of further parts
};

struct Envelope {
    std::string messageId;
    std::string application;
    std::string report;
    std::string catalog;
    std::int64_t sequence = 0;
    std::int64_t createdMs = 0;
    std::size_t collections = 0;
    std::vector<Sample> samples;
    std::vector<Refused> refused;
    std::size_t refusedInAll = 0;  ///< the list is cut
};

/// Used by one thread. Its memory grows to the largest envelope.
class EnvelopeReader {
  public:
    /// False for what is no envelope; `reason` then names the member or the place. Samples refer to the
    /// reader's memory until the next call.
    bool read(std::string_view text, Envelope& envelope, std::string& reason);

  private:
    struct Member {
        std::string_view name;
        std::string_view text;  ///< with its name
    };

    void readReport(Envelope& envelope);
    void readCollection(simdjson::ondemand::object collection, Envelope& envelope);
    /// `out` has its event and instance. Returns false with the reason why it is no sample of that event.
    bool readSample(std::string_view text, Sample& out, std::string& reason);
    std::string readValues(simdjson::ondemand::object values, const Event& event);
    std::string_view sortedValues();

    simdjson::ondemand::parser m_outer;
    simdjson::ondemand::parser m_inner;
    simdjson::ondemand::parser m_one;  ///< of one sample
    simdjson::padded_string m_text;
    simdjson::padded_string m_report;
    std::vector<std::string_view> m_samples;
    std::vector<Member> m_members;  ///< of one sample
    std::string m_values;           ///< of all samples
};

}  // namespace vlmBackend::store
