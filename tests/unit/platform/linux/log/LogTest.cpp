// Composing a line, and its receivers.
#include <cmath>

#include "log/LineText.h"
#include "tests/support/Test.h"

using namespace vlmTest;

namespace {

template <typename... T>
void expectAsStreams(T... values) {
    std::ostringstream expected;
    ((expected << values << ' '), ...);
    kyo::LogStream stream;
    ((stream << values << ' '), ...);
    EXPECT_EQ(stream.text(), expected.str());
}

void say(int level, const char* text) {
    if (kyo::Log::enabled(level)) {
        kyo::Log line;
        line.get(level) << text;
    }
}

}  // namespace

TEST(Log, WritesValuesAsTheStandardStreamsDo) {
    expectAsStreams(0.0, -0.0, 1.0, 0.1, 1.0 / 3, 123456.0, 1234567.0, 1e-5, 0.0001, 1e100, -2.5, HUGE_VAL);
    expectAsStreams(std::nan(""), INT64_MIN, UINT64_MAX, true, 'c', 1.5f);

    kyo::LogStream stream;
    enum class Kind : std::uint8_t { A = 7 };
    stream << Kind::A << ' ' << std::string("s") << ' ' << valueOf(R"({"a":1.5})");
    EXPECT_EQ(stream.text(), R"(7 s {"a":1.5})");
}

TEST(Log, ALineGoesToTheLoggerUpToTheReportingLevelAndNowhereBeforeOneIsSet) {
    say(1, "before");
    const LogCapture log(0);
    say(3, "level still 0");
    kyo::Log::setReportingLevel(5);
    say(5, "five");
    say(7, "seven");
    {  // composed although its level is off: not passed on
        kyo::Log line;
        line.get(6) << "six";
    }
    kyo::Log::setReportingLevel(9);
    EXPECT_EQ(kyo::Log::getReportingLevel(), 7);  // the manifest's default limit
    say(7, "seven");
    EXPECT_THAT(log.messages(), ElementsAre("five", "seven"));
    EXPECT_TRUE(log.has(5, "five") && log.has(7, "seven"));
    EXPECT_EQ(kyo::Log::getFileOutputLevel(), -1);
}

TEST(Log, AThrowingLoggerCostsItsLineOnly) {
    struct Thrower : kyo::ProductLogger {
        void logData(std::string, kyo::LogLevel) override { throw std::runtime_error("no"); }
    } thrower;
    kyo::Log::setProductLogger(&thrower);
    kyo::Log::setReportingLevel(5);
    EXPECT_NO_THROW(say(5, "text"));
    kyo::Log::setProductLogger(nullptr);
}

TEST(LineText, ContentCanNeitherPassForALineOfItsOwnNorSteerATerminal) {
    std::string out;
    kyo::appendLine(out, "T", "INFO", "one\n2026-03-11 00:00:00.000 FATAL forged\n\x1B[2Jred\ttab\x7F\r");
    EXPECT_EQ(out, "T INFO one\n    2026-03-11 00:00:00.000 FATAL forged\n    .[2Jred\ttab..\n");
    out.clear();
    kyo::appendLine(out, "T", "INFO", "M\xC3\xBCnchen\n\n");
    EXPECT_EQ(out, "T INFO M\xC3\xBCnchen\n");
}

TEST(LineText, TheTimeHasMillisecondsAndMovesOn) {
    kyo::ClockText clock;
    const std::string first(clock.text(1'700'000'000'007'999'999));
    EXPECT_EQ(first.substr(16), ":20.007") << first;
    EXPECT_EQ(std::string(clock.text(1'700'000'000'999'000'000)).substr(16), ":20.999");
    EXPECT_EQ(std::string(clock.text(1'700'000'001'000'000'000)).substr(16), ":21.000");
}
