/// vlm-spool: shows, exports and deletes what waits in a spool. docs/mqtt.md describes the folder.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <cxxopts.hpp>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "backend/Compression.h"
#include "backend/Spool.h"
#include "base/Version.h"
#include "json/JsonFields.h"
#include "kyo/Json.h"

namespace {

namespace fs = std::filesystem;
using kyo::orx::Spool;
using kyo::orx::SpooledEnvelope;

struct Found {
    Spool::Entry entry;
    bool isBad = false;
};

std::vector<Found> filesIn(const fs::path& folder) {
    std::vector<Found> found;
    const auto take = [&found](bool isBad) {
        return [&found, isBad](const Spool::Entry& entry) { found.push_back({entry, isBad}); };
    };
    if (const int code = Spool::list(folder, take(false)); code != 0) {
        throw std::runtime_error(folder.string() + " cannot be read: " + std::strerror(code));
    }
    Spool::list(folder / "bad", take(true));  // there may be none
    std::sort(found.begin(), found.end(),
              [](const Found& a, const Found& b) { return a.entry.number < b.entry.number; });
    return found;
}

kyo::orx::Dictionaries dictionaries;

/// The envelope of a file, and its text. False with the reason in `error`.
bool read(const fs::path& folder, const Found& file, SpooledEnvelope& envelope, std::string& text,
          std::string& error) {
    std::ifstream stream(Spool::fileOf(file.isBad ? folder / "bad" : folder, file.entry), std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(stream), {}};
    if (!stream) {
        error = std::strerror(errno);
        return false;
    }
    return kyo::orx::readSpoolFile(content, envelope, error) &&
           kyo::orx::decompress(envelope.encoding, envelope.payload, text, error, kyo::orx::kLargestText,
                                dictionaries);
}

std::string timeOf(std::int64_t ms) {
    const auto seconds = static_cast<std::time_t>(ms / 1000);
    std::tm parts{};
    char text[32] = "";
    if (::gmtime_r(&seconds, &parts) != nullptr) {
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    }
    return text;
}

int list(const fs::path& folder) {
    std::uint64_t bytes = 0;
    std::size_t bad = 0;
    const auto files = filesIn(folder);
    for (const Found& file : files) {
        SpooledEnvelope envelope;
        std::string text;
        std::string error;
        std::cout << file.entry.number << "  ";
        if (read(folder, file, envelope, text, error)) {
            std::cout << timeOf(envelope.storedMs) << "  " << file.entry.bytes << " bytes, text "
                      << text.size() << "  " << envelope.messageId;
        } else {
            std::cout << file.entry.bytes << " bytes, cannot be used: " << error;
        }
        std::cout << (file.isBad ? "  (bad)\n" : "\n");
        bytes += file.entry.bytes;
        bad += file.isBad ? 1 : 0;
    }
    std::cout << files.size() << " envelopes, " << bad << " of them bad, " << bytes << " bytes\n";
    return 0;
}

int show(const fs::path& folder, std::uint64_t number) {
    for (const Found& file : filesIn(folder)) {
        if (file.entry.number != number) {
            continue;
        }
        SpooledEnvelope envelope;
        std::string text;
        std::string error;
        if (!read(folder, file, envelope, text, error)) {
            std::cerr << "vlm-spool: envelope " << number << " cannot be used: " << error << '\n';
            return 1;
        }
        std::cout << text << '\n';
        return 0;
    }
    std::cerr << "vlm-spool: no envelope " << number << " in " << folder.string() << '\n';
    return 1;
}

/// What cannot be used is left out with a message, and the status is 1 then.
int exportAll(const fs::path& folder, std::ostream& out) {
    int status = 0;
    for (const Found& file : filesIn(folder)) {
        SpooledEnvelope envelope;
        std::string text;
        std::string error;
        kyo::Json::Value line(kyo::Json::objectValue);
        kyo::Json::Reader reader;
        if (read(folder, file, envelope, text, error) && !reader.parse(text, line["envelope"], false)) {
            error = reader.getFormattedErrorMessages();
        }
        if (!error.empty()) {
            std::cerr << "vlm-spool: envelope " << file.entry.number << " is left out: " << error << '\n';
            status = 1;
            continue;
        }
        line["spool"] = static_cast<kyo::Json::UInt64>(envelope.number);
        line["storedMs"] = static_cast<kyo::Json::Int64>(envelope.storedMs);
        out << vlmProd::compactText(line) << '\n';
    }
    out.flush();
    if (!out) {
        std::cerr << "vlm-spool: the export cannot be written: " << std::strerror(errno) << '\n';
        return 1;
    }
    return status;
}

/// As the spool's owner, so that numbers go on and no running process is disturbed.
int purge(const fs::path& folder, bool onlyBad) {
    Spool spool({folder});
    std::string error;
    if (!spool.open(error)) {
        std::cerr << "vlm-spool: " << error << '\n';
        return 1;
    }
    const auto count = [&] {
        const auto files = filesIn(folder);
        return std::count_if(files.begin(), files.end(),
                             [&](const Found& file) { return file.isBad || !onlyBad; });
    };
    const auto before = count();
    for (auto entry = spool.next(0); entry && !onlyBad; entry = spool.next(0)) {
        spool.remove(*entry);
    }
    spool.purgeBad();
    const auto left = count();
    std::cout << before - left << " envelopes deleted\n";
    if (left > 0) {
        std::cerr << "vlm-spool: " << left << " cannot be deleted\n";
    }
    return left == 0 ? 0 : 1;
}

int run(int argc, char** argv) {
    if (vlmProd::printVersion(argc, argv, "vlm-spool")) {
        return 0;
    }
    cxxopts::Options options("vlm-spool", "Shows what waits in a spool.");
    options.positional_help("list|show|export|purge FOLDER [NUMBER]");
    auto add = options.add_options();
    add("command", "", cxxopts::value<std::string>());
    add("folder", "backend.spool.path of the manifest", cxxopts::value<std::string>());
    add("number", "of the envelope to show", cxxopts::value<std::uint64_t>());
    add("o,output", "file for the export; standard output without it", cxxopts::value<std::string>());
    add("dictionary", "file of the vehicle's zstd dictionary, unless it is built in; may be repeated",
        cxxopts::value<std::vector<std::string>>()->default_value(""));
    add("bad", "purge only what cannot be used");
    add("h,help", "this text");
    add("version", "print the version");
    options.parse_positional({"command", "folder", "number"});
    const auto given = options.parse(argc, argv);
    if (given.count("help") != 0) {
        std::cout << options.help()
                  << "\n  list    number, time, size and messageId of each envelope"
                     "\n  show    the text of one"
                     "\n  export  all, as JSON Lines for vlm-backend --import"
                     "\n  purge   deletes all; not while vlmmaster owns the spool\n";
        return 0;
    }
    if (given.count("command") == 0 || given.count("folder") == 0 || !given.unmatched().empty()) {
        throw std::invalid_argument("a command and a folder are expected");
    }
    kyo::orx::addDictionaries(given["dictionary"].as<std::vector<std::string>>(), dictionaries);
    const std::string command = given["command"].as<std::string>();
    const fs::path folder = given["folder"].as<std::string>();
    std::string error;
    if (!Spool::isKnown(folder, error)) {
        throw std::runtime_error(error);
    }
    if (command == "list") {
        return list(folder);
    }
    if (command == "show" && given.count("number") != 0) {
        return show(folder, given["number"].as<std::uint64_t>());
    }
    if (command == "export" && given.count("output") != 0) {
        std::ofstream file(given["output"].as<std::string>(), std::ios::binary);
        return exportAll(folder, file);
    }
    if (command == "export") {
        return exportAll(folder, std::cout);
    }
    if (command == "purge") {
        return purge(folder, given.count("bad") != 0);
    }
    throw std::invalid_argument("what is \"" + command + "\"? list, show NUMBER, export and purge are known");
}

}  // namespace

int main(int argc, char** argv) try { return run(argc, argv); } catch (const std::exception& error) {
    std::cerr << "vlm-spool: " << error.what() << "\n--help shows the options.\n";
    return 1;
}
