// Lines on standard output: their shape, and what happens when nobody reads them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <regex>
#include <thread>

#include "ara/log/ConsoleSink.h"
#include "kyo/Json.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/unit/platform/ChildProcess.h"

using testing::HasSubstr;
using vlmTest::ChildProcess;
using vlmTest::Descriptor;
using vlmTest::linesOf;
using vlmTest::openForWriting;
using vlmTest::readFile;

namespace {

struct Folder : vlmTest::TemporaryFolder {
    std::vector<std::pair<std::string, std::string>> environment() const {
        // No daemon has its pipe in that folder.
        return {{"DLT_PIPE_DIR", path()}, {"VLM_MACHINE_MANIFEST", ""}};
    }
    kyo::Json::Value status() const {
        kyo::Json::Value value;
        kyo::Json::Reader reader;
        EXPECT_TRUE(reader.parse(readFile(file("err")), value)) << readFile(file("err"));
        return value;
    }
};

/// Each line must be whole; counts those per thread, which must be in order.
int countLines(const std::string& text) {
    const std::regex shape(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} DEBUG   thread (\d+) line (\d+) x*end)");
    std::map<int, int> last;
    int count = 0;
    for (const std::string& line : linesOf(text)) {
        std::smatch parts;
        if (line.find("Log lines were dropped") != std::string::npos) {
            continue;
        }
        if (!std::regex_match(line, parts, shape)) {
            ADD_FAILURE() << "not a whole line: " << line;
            return count;
        }
        const int thread = std::stoi(parts[1]);
        const int number = std::stoi(parts[2]);
        EXPECT_TRUE(last.count(thread) == 0 || last[thread] < number) << line;
        last[thread] = number;
        ++count;
    }
    return count;
}

std::uint64_t dropped(const kyo::Json::Value& status) {
    return status["log"]["dropped"]["console"].asUInt64();
}

}  // namespace

TEST(Console, LinesOfManyThreadsArriveWholeWithTimeAndLevelAlsoWhenTheProcessExitsAtOnce) {
    const Folder folder;
    {
        const Descriptor out(openForWriting(folder.file("out")));
        const Descriptor err(openForWriting(folder.file("err")));
        ChildProcess probe({LOG_PROBE, "lines", "6", "300"}, folder.environment(), out, err);
        ASSERT_EQ(probe.wait(), 0) << readFile(folder.file("err"));
    }
    EXPECT_EQ(countLines(readFile(folder.file("out"))), 1800);
    EXPECT_EQ(dropped(folder.status()), 0u);
}

TEST(Console, WithoutADaemonNothingIsSaidOnStandardErrorAndLevelsAreNamed) {
    const Folder folder;
    const Descriptor out(openForWriting(folder.file("out")));
    const Descriptor err(openForWriting(folder.file("err")));
    ChildProcess probe({LOG_PROBE, "say", "detail", "@3", "an error\nof two lines"}, folder.environment(),
                       out, err);
    ASSERT_EQ(probe.wait(), 0) << readFile(folder.file("err"));
    const auto lines = linesOf(readFile(folder.file("out")));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_THAT(lines[0], HasSubstr(" DEBUG   detail"));
    EXPECT_THAT(lines[1], HasSubstr(" ERROR   an error"));
    EXPECT_EQ(lines[2], "    of two lines");
    EXPECT_EQ(linesOf(readFile(folder.file("err"))).size(), 1u) << readFile(folder.file("err"));
    EXPECT_FALSE(folder.status()["log"]["dlt"]["connected"].asBool());
}

TEST(Console, AReaderThatStallsCostsLinesWhichAreCountedButHoldsUpNobody) {
    const Folder folder;
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const Descriptor reader(ends[0]);
    Descriptor writer(ends[1]);
    const Descriptor err(openForWriting(folder.file("err")));
    ChildProcess probe({LOG_PROBE, "lines", "2", "30000", "120"}, folder.environment(), writer, err);
    ASSERT_EQ(probe.wait(), 0) << readFile(folder.file("err"));  // although nobody has read a byte
    EXPECT_EQ(::fcntl(writer, F_GETFL) & O_NONBLOCK, 0)
        << "the pipe is shared: its flags are not ours to change";
    const auto lost = dropped(folder.status());
    EXPECT_GT(lost, 0u);
    EXPECT_LE(lost, 60'001u);

    writer.close();
    std::string arrived;
    char bytes[65536];
    for (ssize_t got = 0; (got = ::read(reader, bytes, sizeof bytes)) > 0;) {
        arrived.append(bytes, static_cast<std::size_t>(got));
    }
    arrived.resize(arrived.rfind('\n') + 1);  // the exit cut the last one
    EXPECT_GT(countLines(arrived), 100);
}

TEST(Console, AReaderThatComesBackGetsEveryLineThatWasNotCountedAsDropped) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const Descriptor reader(ends[0]);
    Descriptor writer(ends[1]);
    kyo::Counter& counter = kyo::Status::counter("log.dropped.console");
    const auto before = counter.value();
    constexpr int kLines = 20'000;
    std::string arrived;
    {
        ara::log::ConsoleSink sink(writer, 256u << 10);
        const auto put = [&sink](int i) {
            sink.put({"thread 0 line " + std::to_string(i) + " " + std::string(60, 'x') + "end", 0, 5}, 0);
            sink.pump();
        };
        for (int i = 0; i < kLines; ++i) {
            put(i);
        }
        EXPECT_TRUE(sink.pending());
        EXPECT_GT(counter.value(), before);
        char bytes[5000];
        const auto readSome = [&] {
            const auto got = ::read(reader, bytes, sizeof bytes);
            arrived.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        };
        for (int i = 0; i < kLines; ++i) {
            put(kLines + i);
            readSome();
        }
        while (sink.pending()) {
            readSome();
            sink.pump();
        }
    }
    writer.close();
    char bytes[65536];
    for (ssize_t got = 0; (got = ::read(reader, bytes, sizeof bytes)) > 0;) {
        arrived.append(bytes, static_cast<std::size_t>(got));
    }
    EXPECT_EQ(static_cast<std::uint64_t>(countLines(arrived)), 2 * kLines - (counter.value() - before));
}

TEST(Console, AReaderThatIsGoneEndsTheConsoleAndNotTheProcess) {
    const Folder folder;
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    Descriptor reader(ends[0]);
    const Descriptor writer(ends[1]);
    const Descriptor err(openForWriting(folder.file("err")));
    reader.close();
    ChildProcess probe({LOG_PROBE, "say", "one", "@300", "two", "@300", "three"}, folder.environment(),
                       writer, err);
    EXPECT_EQ(probe.wait(), 0);
    EXPECT_GE(dropped(folder.status()), 2u);
}

TEST(Console, WithoutAStandardOutputThereIsNoConsoleAndNothingIsCalledDropped) {
    const Folder folder;
    const Descriptor err(openForWriting(folder.file("err")));
    ChildProcess probe({"bash", "-c", std::string("exec ") + LOG_PROBE + " say one two >&-"},
                       folder.environment(), -1, err);
    EXPECT_EQ(probe.wait(), 0);
    EXPECT_EQ(dropped(folder.status()), 0u);
}
