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

namespace {

constexpr std::uintmax_t kLargest = 64u << 20;

}  // namespace

Json::Value readConfigurationAnswer(const std::filesystem::path& file, std::string& error) {
    Json::Value answer(Json::arrayValue);
    error.clear();
    std::error_code code;
    const std::uintmax_t size = std::filesystem::file_size(file, code);
    if (code || size > kLargest) {
        error = file.string() + " cannot be read: " + (code ? code.message() : "it is larger than 64 MiB");
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
