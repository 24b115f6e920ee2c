#pragma once
/// Who offers what.
#include <string>
#include <vector>

#include "someip/ServiceDiscovery.h"
#include "tools/watch/Selection.h"

namespace vlmWatch {

/// A table of the offers for a human, then the selected services that nobody offers. Services without a
/// description are part of it if `all`. `explain` adds the selected events with their fields.
std::string offersText(const std::vector<someip::RemoteService>& offers,
                       const std::vector<Selected>& selection, const Services& services, bool all,
                       bool explain);
/// One object for each offer, as JSON Lines.
std::string offersJson(const std::vector<someip::RemoteService>& offers,
                       const std::vector<Selected>& selection, const Services& services, bool all);

}  // namespace vlmWatch
