#include "report/Report.h"

#include <utility>

#include "base/CompactJson.h"
#include "json/JsonFields.h"

namespace vlmProd {

using kyo::Json::Value;

namespace {

constexpr const char* kCollections = "signalCollections";
constexpr const char* kCatalogId = "catalogId";
constexpr std::size_t kUsualMembers = 1024;  // bytes of all other members

}  // namespace

Report::Report(const Value& report) : members(report) {
    if (members.isObject() && members.isMember(kCollections) &&
        !kyo::Json::appendCompact(collections, std::exchange(members[kCollections], Value()))) {
        members = Value();
    }
}

std::string Report::written(std::string_view collectionsText, bool withCatalogId) const {
    if (!members.isObject()) {
        return compactText(members);
    }
    std::string text;
    text.reserve(collectionsText.size() + kUsualMembers);
    ObjectWriter writer(text);
    for (auto item = members.begin(); item != members.end(); ++item) {
        const std::string name = item.name();
        if (name == kCatalogId && !withCatalogId) {
            continue;
        }
        const std::string quoted = compactText(Value(name));
        std::string& out = writer.value(std::string_view(quoted).substr(1, quoted.size() - 2));
        if (name == kCollections) {
            out.append(collectionsText);
        } else {
            kyo::Json::appendCompact(out, *item);
        }
    }
    writer.end();
    return text;
}

}  // namespace vlmProd
