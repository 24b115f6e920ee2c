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

Json::Value readConfigurationAnswer(const std::filesystem::path& file, std::uint64_t mostBytes,
                                    std::string& error) {
    Json::Value answer(Json::arrayValue);
    error.clear();
    std::error_code code;
    const std::uintmax_t size = std::filesystem::file_size(file, code);
    if (code || size / 3 * 4 > mostBytes) {
        error =
            file.string() + " cannot be read: " +
            (code ? code.message()
                  : std::to_string(size) + " bytes in base64 are more than backend.maxConfigurationBytes (" +
                        std::to_string(mostBytes) + ")");
        return answer;
    }
    std::ifstream in(file, std::ios::binary);
    const std::string text(std::istreambuf_iterator<char>(in), {});
    if (!in.is_open() || in.bad()) {
        error = file.string() + " cannot be read";
        return answer;
    }
    const std::vector<std::uint8_t> bytes(text.begin(), text.end());
    const auto hash = Botan::HashFunction::create_or_throw("SHA-256");
    Json::Value record(Json::objectValue);
    record["recordId"] =
        file.filename().string() + '-' + Botan::hex_encode(hash->process(bytes)).substr(0, 16);
    record["recordBody"] = Botan::base64_encode(bytes);
    answer.append(std::move(record));
    return answer;
}

}  // namespace kyo::orx
