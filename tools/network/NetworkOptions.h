#pragma once
/// The options with which a program takes part in SOME/IP.
#include <cxxopts.hpp>
#include <string>

#include "kyo/Json.h"

namespace tools {

/// Declares the group "Network". `ownAddress` says in the help which address the program has by default.
void addNetworkOptions(cxxopts::Options& options, const std::string& ownAddress);

/// Returns the "someip" section of the manifest file, if one is given, changed by the options. `otherwise` is
/// the manifest without the option; empty for none. Throws std::runtime_error with the reason when the file
/// is wrong; the options' values are not checked here.
kyo::Json::Value networkSection(const cxxopts::ParseResult& given, const std::string& otherwise = {});

}  // namespace tools
