#pragma once
/// Samples of one event of one vehicle, a page at a time. They have no key, and several may have the same
/// time: what comes next follows from a place in the order (measured, instance, row), which is the index's.
#include <cstdint>
#include <optional>
#include <string>

#include "backend/store/Events.h"
#include "backend/store/Sql.h"

namespace vlmBackend::store {

/// An expression that differs between any two samples of an event and stays with a sample.
const char* rowExpression(Dialect dialect);

struct Place {
    std::int64_t measuredMs = 0;
    std::int64_t instance = 0;
    Cell row;

    std::string text() const;
    /// Nothing for a text that no place has in this dialect.
    static std::optional<Place> read(const std::string& text, Dialect dialect);
    /// Before all samples that were measured then.
    static Place before(std::int64_t measuredMs, Dialect dialect);
};

/// 0 for an event without samples.
std::int64_t eventId(Sql& sql, const Event& event);

}  // namespace vlmBackend::store
