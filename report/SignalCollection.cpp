#include "report/SignalCollection.h"

#include "base/JsonFields.h"

namespace vlmProd {

SignalCollection::SignalCollection(const kyo::Json::Value& collection)
    : collectName(textOf(member(collection, "collectName"))), text(compactText(collection)) {}

std::vector<const SignalCollection*> pointersTo(const std::vector<SignalCollection>& collections) {
    std::vector<const SignalCollection*> pointers;
    pointers.reserve(collections.size());
    for (const auto& collection : collections) {
        pointers.push_back(&collection);
    }
    return pointers;
}

void appendArray(std::string& out, const std::vector<const SignalCollection*>& collections) {
    char before = '[';
    for (const auto* collection : collections) {
        out.push_back(std::exchange(before, ','));
        out.append(collection->text);
    }
    out.append(collections.empty() ? "[]" : "]");
}

std::string arrayText(const std::vector<const SignalCollection*>& collections) {
    std::string text;
    appendArray(text, collections);
    return text;
}

}  // namespace vlmProd
