#pragma once
#include <cstdint>
#include <filesystem>
#include <string>

#include "kyo/Json.h"

namespace kyo::orx {

/// An answer to a configuration request: an array with one record, {"recordId", "recordBody" as base64}.
Json::Value configurationAnswer(const std::string& recordId, const std::string& text);

/// Returns an answer with the content of a file. The record is named after file and content, so that a report
/// shows which version of the file it used. An empty array, with a cause in `error`, when the file cannot be
/// read, or when the body would have more than `mostBytes`.
Json::Value readConfigurationAnswer(const std::filesystem::path& file, std::uint64_t mostBytes,
                                    std::string& error);

}  // namespace kyo::orx
