#pragma once
/// Samples as text: lines for a human, CSV and JSON.
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/watch/Watcher.h"

namespace vlmWatch {

/// Cuts the line to `width` columns of a terminal, ending in ".."; 0: no limit.
std::string cutTo(const std::string& line, std::size_t width);
/// "20:45:24.123", UTC.
std::string timeText(std::int64_t timeUs);
/// "GNSS.positions:1 fused", with "#2" after the event for another instance than 1.
std::string sampleName(const Selected& selected, const Arrival& arrival);
/// A value for a human: enumerators by name, at most nine digits, texts in quotes with escapes, so that
/// nothing from the network acts on the terminal.
std::string valueText(const qdr::services::FieldInfo& field, const qdr::services::FieldValue& value);

/// {"event":"positions","index":1,"instance":1,"service":"GNSS","timestamp":<ms>,"values":{...}} with the
/// values as in a record of vlmmaster.
std::string jsonLine(const Selected& selected, const Arrival& arrival);

/// The columns of one event; vlm-vehicle --csv replays them.
std::string csvHeader(const qdr::services::DescribedEvent& event);
/// The time in seconds since 1970; an empty cell for a field without a value. Enumerators have their names.
std::string csvRow(const qdr::services::DescribedEvent& event, const Arrival& arrival);

/// Lines for a human. Columns never get narrower.
///
/// A "...ValueType" has no column of its own: a value whose state is not valid is followed by the state in
/// parentheses.
class Lines {
  public:
    struct Options {
        std::set<std::string> fields{};  ///< empty: all
        std::size_t width = 0;           ///< columns of the terminal; 0: lines may have any length
        std::size_t height = 0;          ///< the header repeats after this many lines; 0: never
        bool explain = false;            ///< units and meanings: a sample is a block of lines
        bool sparse = false;             ///< shows how many samples a line represents
    };

    Lines(const std::vector<Selected>& selection, Options options);

    /// The lines of a sample, with the header where it is due, each with a line end. `skipped` samples of the
    /// same event and index were not shown since the previous one.
    std::string of(const Arrival& arrival, std::uint64_t skipped);
    /// Values were left out because the line would be too long.
    bool hasCut() const noexcept { return m_hasCut; }

  private:
    struct Column {
        const qdr::services::FieldInfo* field;
        std::size_t place;                 ///< in the sample
        std::optional<std::size_t> state;  ///< place of its "...ValueType"
        std::string unit;
        bool isNumber = false;
        std::size_t width = 0;
    };
    using Columns = std::vector<Column>;

    Columns columnsOf(const Selected& selected) const;
    static std::string cell(const Column& column, const Arrival& arrival);
    std::string prefix(const Arrival& arrival, std::uint64_t skipped);
    std::size_t fitting(const Columns& columns, std::size_t startWidth) const;
    std::string header(const Selected& selected, const Columns& columns, std::size_t startWidth);
    std::string tableRow(const Selected& selected, Columns& columns, const std::string& start,
                         const Arrival& arrival);
    std::string pairs(Columns& columns, const std::string& start, const Arrival& arrival);
    std::string block(const Selected& selected, const Columns& columns, const std::string& start,
                      const Arrival& arrival);

    const std::vector<Selected>& m_selection;
    const Options m_options;
    const bool m_isTable;            ///< one event alone: its names are a header
    std::vector<Columns> m_columns;  ///< by position in the selection
    std::size_t m_nameWidth = 0;
    std::size_t m_sinceHeader = 0;
    bool m_headerIsDue = true;
    bool m_hasCut = false;
};

/// The description of an event for a human: its indexes, and its fields with units, ranges and meanings.
std::string explained(const Selected& selected);

}  // namespace vlmWatch
