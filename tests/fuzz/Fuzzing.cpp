#include "Fuzzing.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "kyo/Log.h"

namespace vlmFuzz {

namespace {

struct Nowhere : kyo::ProductLogger {
    void logData(std::string, kyo::LogLevel) override {}
};

}  // namespace

void require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

std::string Input::line() {
    const auto end = std::find(m_left.begin(), m_left.end(), '\n');
    const std::string text = textOf(take(static_cast<std::size_t>(end - m_left.begin())));
    take(1);
    return text;
}

std::string fileWith(const std::string& content) {
    static const int file = ::memfd_create("fuzz", 0);
    require(file >= 0 && ::ftruncate(file, 0) == 0, "a file in memory");
    require(::pwrite(file, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()),
            "a file in memory is written");
    return "/proc/self/fd/" + std::to_string(file);
}

bool parse(const std::string& text, kyo::Json::Value& out) {
    kyo::Json::Reader reader;
    return reader.parse(text, out, false);
}

}  // namespace vlmFuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static vlmFuzz::Nowhere nowhere;
    kyo::Log::setProductLogger(&nowhere);
    kyo::Log::setReportingLevel(7);
    vlmFuzz::run(vlmFuzz::Input({data, size}));
    return 0;
}
