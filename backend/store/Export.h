#pragma once
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "backend/store/Sql.h"

namespace vlmBackend::store {

/// A request that cannot be met; the message names what is wrong with it.
struct ExportError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Selection {
    std::string vehicle;
    std::vector<std::string> columns;  ///< of CSV: "gnss_positions.latitude", from one or several views
    std::int64_t fromMs = std::numeric_limits<std::int64_t>::min();  ///< measured at this time or later, UTC
    std::int64_t toMs = std::numeric_limits<std::int64_t>::max();    ///< measured before
    /// Missing: all instances in CSV, the one with the most positions in GPX.
    std::optional<std::int64_t> instance;
};

/// Lends a connection to `work`, which reads for a short time.
using Lend = std::function<void(const std::function<void(Sql& sql)>& work)>;

/// Each writes row by row and returns how many rows it wrote. They throw ExportError and DatabaseError. They
/// read a part at a time, and while `out` waits they hold neither a connection nor a transaction. What is
/// stored or deleted meanwhile may be in the output or not.

/// One line per sample, in the order of measured times: time (UTC, milliseconds), instance, chosen columns.
/// Columns of other events than the sample's are empty.
std::size_t exportCsv(const Lend& lend, const Selection& selection, std::ostream& out);
/// The positions of gnss_positions as one GPX 1.1 track.
std::size_t exportGpx(const Lend& lend, const Selection& selection, std::ostream& out);
/// Envelopes as they arrived, one per line, in order of arrival: those whose first to last measured time
/// overlaps the time range.
std::size_t exportEnvelopes(const Lend& lend, const Selection& selection, std::ostream& out);

/// "2026-11-25T10:00:00.000Z".
std::string utcText(std::int64_t ms);
/// "2026-11-25", "2026-11-25T10:00", with seconds, milliseconds and "Z" if given; always UTC. Throws
/// ExportError.
std::int64_t utcMs(const std::string& text);

}  // namespace vlmBackend::store
