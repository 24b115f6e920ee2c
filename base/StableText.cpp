#include "base/StableText.h"

#include <mutex>
#include <set>

namespace vlmProd {

kyo::Json::StaticString stableText(const std::string& text) {
    // Never destroyed: records on detached threads may refer to the texts while the process exits.
    static auto* const texts = new std::set<std::string>;
    static auto* const guard = new std::mutex;
    const std::lock_guard<std::mutex> lock(*guard);
    return kyo::Json::StaticString(texts->insert(text).first->c_str());
}

}  // namespace vlmProd
