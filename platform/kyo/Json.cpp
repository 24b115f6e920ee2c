#include "kyo/Json.h"

#include <json/reader.h>
#include <json/writer.h>

#include <iterator>
#include <memory>

namespace kyo::Json {

bool Reader::parse(const std::string& text, Value& root, bool collectComments) {
    ::Json::CharReaderBuilder builder;
    builder["collectComments"] = collectComments;
    builder["failIfExtra"] = true;
    m_errors.clear();
    bool good = false;
    try {
        const std::unique_ptr<::Json::CharReader> reader(builder.newCharReader());
        good = reader->parse(text.data(), text.data() + text.size(), &root, &m_errors);
    } catch (const ::Json::Exception& error) {  // nesting beyond the library's limit
        m_errors = error.what();
    }
    if (!good) {
        root = Value();
        if (m_errors.empty()) {
            m_errors = "not a JSON document";
        }
    } else {
        m_errors.clear();
    }
    return good;
}

bool Reader::parse(std::istream& stream, Value& root, bool collectComments) {
    const std::string text(std::istreambuf_iterator<char>(stream), {});
    return parse(text, root, collectComments);
}

std::string FastWriter::write(const Value& value) const {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    // The library calls this writer old, yet it is several times faster than its stream writers.
    ::Json::FastWriter writer;
#pragma GCC diagnostic pop
    writer.omitEndingLineFeed();
    try {
        return writer.write(value);
    } catch (const ::Json::Exception&) {  // nesting beyond the library's limit
        return "null";
    }
}

}  // namespace kyo::Json
