// Logs through kyo::Log and ara::log and exits, as its arguments demand:
//     log_probe lines THREADS COUNT [SIZE]   COUNT lines from each thread, filled up to SIZE bytes
//     log_probe say TEXT...                  one line at level 7 for each text; "@300" waits 300 ms, "@3" is
//                                            shorter than that and so stands for level 3 from there on
//     log_probe manifest                     prints the level that applies and the socket's path
// At its end it writes its status as JSON on standard error.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "ara/log/logging.h"
#include "kyo/Log.h"
#include "kyo/Status.h"
#include "machine/Manifest.h"

namespace {

class Forwarder : public kyo::ProductLogger {
  public:
    Forwarder() {
        ara::log::InitLogging("VLM", "Velmora", ara::log::LogLevel::kVerbose,
                              ara::log::LogMode::kRemote | ara::log::LogMode::kConsole, "");
    }
    void logData(std::string message, kyo::LogLevel level) override {
        (level <= 3 ? ara::log::LogError() : ara::log::LogDebug()) << std::move(message);
    }
};

void say(const std::string& text, int level) {
    if (kyo::Log::enabled(level)) {
        kyo::Log line;
        line.get(level) << text;
    }
}

void sayLines(int threads, int count, std::size_t size) {
    std::vector<std::thread> all;
    for (int thread = 0; thread < threads; ++thread) {
        all.emplace_back([=] {
            for (int i = 0; i < count; ++i) {
                std::string text = "thread " + std::to_string(thread) + " line " + std::to_string(i) + " ";
                text.resize(std::max(size, text.size()), 'x');
                say(text + "end", 7);
            }
        });
    }
    for (std::thread& thread : all) {
        thread.join();
    }
}

/// Ends the process in its constructor.
struct Ender {
    Ender() {
        std::string status;
        kyo::Json::appendCompact(status, kyo::Status::snapshot());
        std::fprintf(stderr, "%s\n", status.c_str());
        std::exit(0);
    }
};

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    const std::string what = words.empty() ? "" : words[0];
    kyo::Log::setProductLogger(new Forwarder);
    kyo::Log::setReportingLevel(7);
    if (what == "lines") {
        sayLines(std::stoi(words.at(1)), std::stoi(words.at(2)), words.size() > 3 ? std::stoul(words[3]) : 0);
    } else if (what == "say") {
        int level = 7;
        for (std::size_t i = 1; i < words.size(); ++i) {
            if (words[i].front() != '@') {
                say(words[i], level);
            } else if (words[i].size() == 2) {
                level = std::stoi(words[i].substr(1));
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(words[i].substr(1))));
            }
        }
    } else if (what == "manifest") {
        std::printf("%d %d %s\n", kyo::Log::getReportingLevel(), kyo::Log::getFileOutputLevel(),
                    machine::stateSocketPath().c_str());
        std::fflush(stdout);
    }
    static const Ender ender;
}
