/// vlm-check: checks configurations, catalogs and manifests before they reach a vehicle.
#include <cxxopts.hpp>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/Version.h"
#include "tools/check/Checks.h"
#include "tools/check/Suggest.h"

namespace {

using namespace vlmCheck;

const std::map<std::string, Kind> kindNames = {{"application", Kind::Application},
                                               {"catalog", Kind::Catalog},
                                               {"collector", Kind::Collector},
                                               {"manifest", Kind::Manifest}};

struct Result {
    std::string file;
    std::string kind;
    std::vector<Finding> findings;

    std::size_t count(Severity severity) const {
        std::size_t number = 0;
        for (const auto& finding : findings) {
            number += finding.severity == severity ? 1 : 0;
        }
        return number;
    }
};

void print(const Result& result) {
    for (const auto& finding : result.findings) {
        std::cout << result.file;
        if (finding.line != 0) {
            std::cout << ':' << finding.line;
        }
        std::cout << ": " << (finding.severity == Severity::Error ? "error" : "warning") << ": ";
        if (!finding.path.empty()) {
            std::cout << finding.path << ": ";
        }
        std::cout << finding.reason << '\n';
        if (!finding.suggestion.empty()) {
            std::cout << "    " << finding.suggestion << '\n';
        }
    }
    const auto errors = result.count(Severity::Error);
    const auto warnings = result.count(Severity::Warning);
    std::cout << result.file << ": " << (errors == 0 ? "good" : "not good");
    if (!result.kind.empty()) {
        std::cout << " (" << result.kind << ")";
    }
    if (errors != 0 || warnings != 0) {
        std::cout << ", " << errors << (errors == 1 ? " error, " : " errors, ") << warnings
                  << (warnings == 1 ? " warning" : " warnings");
    }
    std::cout << '\n';
}

kyo::Json::Value toJson(const Result& result) {
    kyo::Json::Value out(kyo::Json::objectValue);
    out["file"] = result.file;
    out["kind"] = result.kind;
    out["good"] = result.count(Severity::Error) == 0;
    out["findings"] = kyo::Json::Value(kyo::Json::arrayValue);
    for (const auto& finding : result.findings) {
        out["findings"].append(finding.toJson());
    }
    return out;
}

/// The --kind option. Returns false, with a message, for an unknown one.
bool readKind(const cxxopts::ParseResult& arguments, std::optional<Kind>& out) {
    if (arguments.count("kind") == 0) {
        return true;
    }
    const auto name = arguments["kind"].as<std::string>();
    const auto found = kindNames.find(name);
    if (found == kindNames.end()) {
        std::cerr << "vlm-check: unknown kind \"" << name
                  << "\": collector, application, catalog or manifest\n";
        return false;
    }
    out = found->second;
    return true;
}

/// Checks one file. `problem` is why there is no catalog, if it is nullptr.
Result check(const std::string& file, std::optional<Kind> kind, const CatalogView* catalog,
             const std::string& problem) {
    Result result{file, "", {}};
    Document document;
    if (!readDocument(file, document, result.findings)) {
        return result;
    }
    if (!kind) {
        kind = guessKind(document);
    }
    if (!kind) {
        result.findings.push_back({Severity::Error, 1, "$", "looks like none of the known files",
                                   "give its kind with --kind collector|application|catalog|manifest"});
        return result;
    }
    result.kind = nameOf(*kind);
    const auto found = checkDocument(document, *kind, catalog);
    result.findings.insert(result.findings.end(), found.begin(), found.end());
    if (*kind == Kind::Collector && catalog == nullptr) {
        result.findings.push_back(namesNotChecked(problem));
    }
    return result;
}

int run(int argc, char** argv) {
    cxxopts::Options options("vlm-check",
                             "Checks collector configurations, application configurations, signal catalogs "
                             "and machine manifests.\n"
                             "Exit status: 0 when all are good (warnings allowed), else 1.");
    options.add_options()("catalog", "signal catalog for checking names", cxxopts::value<std::string>(),
                          "FILE")(
        "kind", "collector, application, catalog or manifest; guessed from the content without it",
        cxxopts::value<std::string>(),
        "KIND")("json", "findings as a JSON array")("h,help", "this text")("version", "print the version")(
        "files", "files to check", cxxopts::value<std::vector<std::string>>());
    options.parse_positional("files");
    options.positional_help("FILE...");
    const auto arguments = options.parse(argc, argv);
    if (arguments.count("help") != 0) {
        std::cout << options.help() << '\n';
        return 0;
    }
    if (arguments.count("files") == 0) {
        std::cerr << "vlm-check: no file given\n" << options.help() << '\n';
        return 1;
    }
    std::optional<Kind> kind;
    if (!readKind(arguments, kind)) {
        return 1;
    }
    std::string problem;
    const bool catalogGiven = arguments.count("catalog") != 0;
    const auto catalog = CatalogView::read(
        catalogGiven ? arguments["catalog"].as<std::string>() : CatalogView::kInstalled, problem);
    if (catalogGiven && !catalog) {
        std::cerr << "vlm-check: " << problem << '\n';
        return 1;
    }

    bool allGood = true;
    const bool asJson = arguments.count("json") != 0;
    kyo::Json::Value all(kyo::Json::arrayValue);
    for (const auto& file : arguments["files"].as<std::vector<std::string>>()) {
        const Result result = check(file, kind, catalog ? &*catalog : nullptr, problem);
        allGood = allGood && result.count(Severity::Error) == 0;
        if (asJson) {
            all.append(toJson(result));
        } else {
            print(result);
        }
    }
    if (asJson) {
        std::cout << all.toStyledString();
    }
    return allGood ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (vlmProd::printVersion(argc, argv, "vlm-check")) {
        return 0;
    }
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {  // from cxxopts, or unexpected
        std::cerr << "vlm-check: " << error.what() << '\n';
        return 1;
    }
}
