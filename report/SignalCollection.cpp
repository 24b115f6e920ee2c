#include "report/SignalCollection.h"

#include "json/JsonFields.h"

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

std::string arrayText(const std::vector<const SignalCollection*>& collections) {
    std::size_t length = 2;
    for (const auto* collection : collections) {
        length += collection->text.size() + 1;
    }
    std::string text;
    text.reserve(length);
    text.push_back('[');
    for (const auto* collection : collections) {
        text.append(collection == collections.front() ? "" : ",").append(collection->text);
    }
    text.push_back(']');
    return text;
}

}  // namespace vlmProd
