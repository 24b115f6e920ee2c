// vlm-state STATE: requests a component state of vlmmaster and prints the confirmation.
#include <cstdio>
#include <cxxopts.hpp>
#include <exception>
#include <string>

#include "base/Version.h"
#include "machine/Manifest.h"
#include "state/StateSocket.h"

namespace {

int request(const std::string& path, const std::string& state) {
    ara::stm::StateSocket socket;
    kyo::Json::Value document(kyo::Json::objectValue);
    document["request"] = "state";
    document["state"] = state;
    kyo::Json::Value answer;
    std::string error;
    if (!socket.connect(path, error) || !socket.ask(document, answer, error)) {
        std::fprintf(stderr, "vlm-state: %s\n", error.c_str());
        return 1;
    }
    const kyo::Json::Value& confirmation = answer;
    const std::string result = confirmation["result"].isString() ? confirmation["result"].asString() : "";
    std::printf("%s confirmed: %s\n", state.c_str(), result.empty() ? "no result" : result.c_str());
    return result == "success" ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (vlmProd::printVersion(argc, argv, "vlm-state")) {
        return 0;
    }
    try {
        cxxopts::Options options("vlm-state",
                                 "Asks vlmmaster for a component state and prints its confirmation.");
        options.positional_help("STATE (kOn, kPrepSD, ...)").custom_help("[--socket PATH]");
        options.add_options()("socket", "path of the state socket; default: the machine manifest's",
                              cxxopts::value<std::string>())("state", "", cxxopts::value<std::string>())(
            "h,help", "this help")("version", "print the version");
        options.parse_positional({"state"});
        const auto given = options.parse(argc, argv);
        if (given.count("help") != 0 || given.count("state") == 0 || !given.unmatched().empty()) {
            std::fputs(options.help().c_str(), given.count("help") != 0 ? stdout : stderr);
            return given.count("help") != 0 ? 0 : 1;
        }
        return request(
            given.count("socket") != 0 ? given["socket"].as<std::string>() : machine::stateSocketPath(),
            given["state"].as<std::string>());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vlm-state: %s\n", error.what());
        return 1;
    }
}
