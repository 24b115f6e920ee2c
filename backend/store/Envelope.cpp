#include "backend/store/Envelope.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <tuple>

namespace vlmBackend::store {

using namespace simdjson;

namespace {

constexpr std::size_t kMostName = 256;     // bytes of an identifier, application or report name
constexpr std::size_t kMostRefused = 100;  // of one envelope; one entry more is for all others

struct Fault {
    std::string reason;
};

std::string shortText(ondemand::value value, const char* member) {
    std::string_view text;
    if (value.get_string().get(text) != SUCCESS) {
        throw Fault{std::string(member) + ": a text is expected"};
    }
    if (text.size() > kMostName) {
        throw Fault{std::string(member) + ": longer than " + std::to_string(kMostName) + " bytes"};
    }
    if (text.find('\0') != std::string_view::npos) {
        throw Fault{std::string(member) + ": contains U+0000"};
    }
    return std::string(text);
}

/// A number, or a text that holds one: the vehicle writes its times as text.
std::int64_t wholeNumber(ondemand::value value, const char* member) {
    std::int64_t number = 0;
    std::string_view text;
    ondemand::json_type type{};
    if (value.type().get(type) == SUCCESS && type == ondemand::json_type::string) {
        if (value.get_string().get(text) == SUCCESS) {
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
            if (error == std::errc{} && end == text.data() + text.size()) {
                return number;
            }
        }
    } else if (value.get_int64().get(number) == SUCCESS) {
        return number;
    }
    throw Fault{std::string(member) + ": a whole number is expected"};
}

bool fits(ondemand::value value, Kind kind) {
    ondemand::json_type type{};
    if (value.type().get(type) != SUCCESS) {
        return false;
    }
    if (kind == Kind::Text) {
        std::string_view text;
        // No database takes U+0000 in a text.
        return type == ondemand::json_type::string && value.get_string().get(text) == SUCCESS &&
               text.find('\0') == std::string_view::npos;
    }
    if (type == ondemand::json_type::boolean) {
        bool flag = false;
        return kind == Kind::Boolean && value.get_bool().get(flag) == SUCCESS;
    }
    if (type != ondemand::json_type::number) {
        return false;
    }
    switch (kind) {
        case Kind::Integer: {
            std::int64_t number = 0;
            return value.get_int64().get(number) == SUCCESS;
        }
        case Kind::Unsigned64: {
            std::uint64_t number = 0;
            return value.get_uint64().get(number) == SUCCESS;
        }
        case Kind::Real: {
            double number = 0;
            return value.get_double().get(number) == SUCCESS;
        }
        default:
            return false;
    }
}

/// At most kMostRefused are kept, then the envelope, for which the last entry's text is empty.
void refuse(Envelope& envelope, std::string reason, std::string_view text) {
    ++envelope.refusedInAll;
    if (envelope.refused.size() < kMostRefused) {
        envelope.refused.push_back({std::move(reason), std::string(text)});
    } else if (envelope.refused.size() == kMostRefused) {
        envelope.refused.push_back({"further samples fit no event: the whole envelope", ""});
    }
}

}  // namespace

bool EnvelopeReader::read(std::string_view text, Envelope& envelope, std::string& reason) {
    envelope = {};
    m_text = padded_string(text);
    try {
        ondemand::document document;
        ondemand::object members;
        if (m_outer.iterate(m_text).get(document) != SUCCESS ||
            document.get_object().get(members) != SUCCESS) {
            throw Fault{"no JSON object"};
        }
        bool withReport = false;
        for (auto member : members) {
            std::string_view name;
            ondemand::value value;
            if (member.unescaped_key().get(name) != SUCCESS || member.value().get(value) != SUCCESS) {
                throw Fault{"no JSON"};
            }
            if (name == "messageId") {
                envelope.messageId = shortText(value, "messageId");
            } else if (name == "timestamp") {
                envelope.createdMs = wholeNumber(value, "timestamp") * 1000;
            } else if (name == "orxClientDataReport") {
                std::string_view report;
                if (value.get_string().get(report) != SUCCESS) {
                    throw Fault{"orxClientDataReport: a text is expected"};
                }
                m_report = padded_string(report);
                m_values.clear();
                m_values.reserve(report.size());  // so that nothing moves: what is written is no longer
                withReport = true;
            }
        }
        if (envelope.messageId.empty()) {
            throw Fault{"messageId: missing"};
        }
        if (!withReport) {
            throw Fault{"orxClientDataReport: missing"};
        }
        readReport(envelope);
        return true;
    } catch (const Fault& fault) {
        reason = fault.reason;
    } catch (const simdjson_error& error) {
        reason = error.what();
    }
    return false;
}

void EnvelopeReader::readReport(Envelope& envelope) {
    ondemand::document document;
    ondemand::object members;
    if (m_inner.iterate(m_report).get(document) != SUCCESS || document.get_object().get(members) != SUCCESS) {
        throw Fault{"orxClientDataReport: no JSON object"};
    }
    for (auto member : members) {
        const std::string_view name = member.unescaped_key();
        ondemand::value value = member.value();
        if (name == "applicationName") {
            envelope.application = shortText(value, "orxClientDataReport.applicationName");
        } else if (name == "reportName") {
            envelope.report = shortText(value, "orxClientDataReport.reportName");
        } else if (name == "functionId") {
            envelope.catalog = shortText(value, "orxClientDataReport.functionId");
        } else if (name == "sequenceNumber") {
            envelope.sequence = wholeNumber(value, "orxClientDataReport.sequenceNumber");
        } else if (name == "signalCollections" && !value.is_null()) {
            ondemand::array collections = value.get_array();
            for (auto collection : collections) {
                readCollection(collection.get_object(), envelope);
            }
        }
    }
}

void EnvelopeReader::readCollection(ondemand::object collection, Envelope& envelope) {
    std::string service;
    std::string resource;
    std::int64_t instance = 0;
    m_samples.clear();
    for (auto member : collection) {
        const std::string_view name = member.unescaped_key();
        ondemand::value value = member.value();
        if (name == "serviceName") {
            service = shortText(value, "serviceName");
        } else if (name == "resourceName") {
            resource = shortText(value, "resourceName");
        } else if (name == "index") {
            instance = wholeNumber(value, "index");
        } else if (name == "samples" && !value.is_null()) {
            ondemand::array samples = value.get_array();
            for (auto sample : samples) {
                m_samples.push_back(sample.get_object().value().raw_json());
            }
        }
    }
    ++envelope.collections;
    const Event* const event = findEvent(service, resource);
    for (const std::string_view text : m_samples) {
        std::string reason;
        if (event == nullptr) {
            reason = "\"" + service + "." + resource + "\" is no event of the catalog";
        } else if (Sample sample{event, instance, 0, {}}; readSample(text, sample, reason)) {
            envelope.samples.push_back(sample);
        }
        if (!reason.empty()) {
            refuse(envelope, std::move(reason), text);
        }
    }
}

/// Returns why the values are none of that event; empty when they are, and m_members has them.
std::string EnvelopeReader::readValues(ondemand::object values, const Event& event) {
    m_members.clear();
    for (auto member : values) {
        std::string_view name;
        const char* const begin = member.key().value().raw() - 1;  // its quote
        if (member.unescaped_key().get(name) != SUCCESS) {
            return "a member's name cannot be read";
        }
        const EventField* field = event.field(name);
        if (field == nullptr) {
            return std::string(event.service) + "." + std::string(event.resource) + " has no member \"" +
                   std::string(name.substr(0, kMostName)) + "\"";
        }
        ondemand::value value;
        std::string_view token;
        if (member.value().get(value) == SUCCESS) {
            token = value.raw_json_token();
        }
        if (token.empty() || !fits(value, field->kind)) {
            return "\"" + std::string(name) + "\" has the wrong type";
        }
        const auto length = token.find_last_not_of(" \t\r\n") + 1;
        m_members.push_back({name, {begin, static_cast<std::size_t>(token.data() + length - begin)}});
    }
    return {};
}

/// Writes the members in the order in which PostgreSQL stores them, which then need not sort them.
std::string_view EnvelopeReader::sortedValues() {
    std::sort(m_members.begin(), m_members.end(), [](const Member& a, const Member& b) {
        return std::tuple(a.name.size(), a.name, a.text.data()) <
               std::tuple(b.name.size(), b.name, b.text.data());
    });
    const std::size_t from = m_values.size();
    m_values += '{';
    for (const Member& member : m_members) {
        m_values += m_values.size() == from + 1 ? "" : ",";
        m_values += member.text;
    }
    m_values += '}';
    return std::string_view(m_values).substr(from);
}

bool EnvelopeReader::readSample(std::string_view text, Sample& out, std::string& reason) {
    // The text lies inside m_report, so that what follows it is readable.
    ondemand::document document = m_one.iterate(text, text.size() + SIMDJSON_PADDING);
    bool timed = false;
    bool valued = false;
    ondemand::object members = document.get_object();
    for (auto member : members) {
        const std::string_view name = member.unescaped_key();
        ondemand::value value = member.value();
        if (name == "timestamp") {
            out.measuredMs = wholeNumber(value, "timestamp");
            timed = true;
        } else if (name == "propertyValuePairs" && !value.is_null()) {
            reason = readValues(value.get_object(), *out.event);
            if (!reason.empty()) {
                return false;  // after an error the text cannot be read on
            }
            out.values = sortedValues();
            valued = true;
        }
    }
    if (!valued || !timed) {
        reason = !valued ? "a sample without \"propertyValuePairs\"" : "a sample without \"timestamp\"";
    }
    return reason.empty();
}

}  // namespace vlmBackend::store
