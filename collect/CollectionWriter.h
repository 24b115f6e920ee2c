#pragma once
#include <array>
#include <string>
#include <string_view>

#include "report/SignalCollection.h"

namespace vlmProd {

/// Makes a signal collection out of the texts of records, oldest first. What a record says of itself (its
/// collector, service, resource, index and time) is taken out of it; a record that lacks one of these takes
/// over that of the record before it. The collection says of itself what the last record says.
class CollectionWriter {
  public:
    /// Appends the record's sample. The sample's text, which stands until the next call.
    std::string_view add(std::string_view record);
    /// The collection of all that was added.
    SignalCollection finish();

  private:
    enum Known { CollectorName, ServiceName, ResName, Index, Timestamp, Count };

    static Known knownOf(std::string_view name);

    std::array<std::string, Count> m_last;  ///< JSON text of what was said last; empty: nothing yet
    std::string m_quotedTimestamp = "\"\"";
    std::string m_samples;  ///< separated by commas
    unsigned int m_count = 0;
};

}  // namespace vlmProd
