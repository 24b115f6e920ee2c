#include "backend/store/Events.h"

#include <algorithm>
#include <utility>

namespace vlmBackend {

const EventField* Event::field(std::string_view wanted) const {
    const auto found = std::find_if(fields.begin(), fields.end(),
                                    [wanted](const EventField& field) { return field.name == wanted; });
    return found != fields.end() ? &*found : nullptr;
}

const Event* findEvent(std::string_view service, std::string_view resource) {
    const auto all = events();
    const auto wanted = std::pair(service, resource);
    const auto found = std::lower_bound(
        all.begin(), all.end(), wanted,
        [](const Event& event, const auto& key) { return std::pair(event.service, event.resource) < key; });
    return found != all.end() && std::pair(found->service, found->resource) == wanted ? &*found : nullptr;
}

const Event* findView(std::string_view view) {
    const auto all = events();
    const auto found =
        std::find_if(all.begin(), all.end(), [view](const Event& event) { return event.view == view; });
    return found != all.end() ? &*found : nullptr;
}

}  // namespace vlmBackend
