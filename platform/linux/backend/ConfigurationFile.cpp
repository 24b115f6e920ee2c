#include "backend/ConfigurationFile.h"

#include <botan/base64.h>
#include <botan/hash.h>
#include <botan/hex.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>
#include <vector>

namespace kyo::orx {

Json::Value configurationAnswer(const std::string& recordId, const std::string& text) {
    Json::Value answer(Json::arrayValue);
    Json::Value& record = answer.append(Json::Value(Json::objectValue));
    record["recordId"] = recordId;
    record["recordBody"] = Botan::base64_encode(std::vector<std::uint8_t>(text.begin(), text.end()));
    return answer;
}

Json::Value readConfigurationAnswer(const std::filesystem::path& file, std::uint64_t mostBytes,
                                    std::string& error) {
    Json::Value none(Json::arrayValue);
    error.clear();
    std::error_code code;
    const std::uintmax_t size = std::filesystem::file_size(file, code);
    if (code || size / 3 * 4 > mostBytes) {
        error =
            file.string() + " cannot be read: " +
            (code ? code.message()
                  : std::to_string(size) + " bytes in base64 are more than backend.maxConfigurationBytes (" +
                        std::to_string(mostBytes) + ")");
        return none;
    }
    std::ifstream in(file, std::ios::binary);
    const std::string text(std::istreambuf_iterator<char>(in), {});
    if (!in.is_open() || in.bad()) {
        error = file.string() + " cannot be read";
        return none;
    }
    const auto hash = Botan::HashFunction::create_or_throw("SHA-256");
    hash->update(text);
    return configurationAnswer(
        file.filename().string() + '-' + Botan::hex_encode(hash->final()).substr(0, 16), text);
}

}  // namespace kyo::orx
