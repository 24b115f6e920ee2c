/// The application configuration with look-ups by path. The first lines, up to an empty one, are keys.
#include "Fuzzing.h"
#include "app/VLMConfig.h"

void vlmFuzz::run(Input in) {
    std::vector<std::string> keys{"OfferedDataTypes", ""};
    for (std::string key = in.line(); !key.empty() && keys.size() < 8; key = in.line()) {
        keys.push_back(key);
    }
    const std::string text = textOf(in.rest());
    kyo::Json::Value document;
    if (!parse(text, document)) {
        return;  // the product ends with status 250
    }
    vlmProd::VLMConfig config(fileWith(text));
    require(config.getConfigVersion().size() == 64, "the version is a digest");
    require(config.getJsonValue("") == document, "the empty key is the document");
    for (const auto& key : keys) {
        for (const int index : {0, 3, -1}) {
            config.getJsonValue(key, index);
            config.getString(key, "", index);
            config.getInt(key, 0, index);
            config.getLong(key, 0, index);
            config.getBool(key, false, index);
            config.getDouble(key, 0, index);
            config.getAsString(key, "", index);
        }
        config.getArraySize(key);
    }
}
