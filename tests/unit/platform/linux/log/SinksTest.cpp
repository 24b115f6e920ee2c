// Lines on standard output and in the log file that the manifest names.
#include <array>
#include <iostream>
#include <regex>

#include "app/VlmAraLogger.h"
#include "log/ConsoleSink.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Test.h"

using namespace vlmTest;

namespace {

void say(const std::string& text, int level = 7) {
    if (kyo::Log::enabled(level)) {
        kyo::Log line;
        line.get(level) << text;
    }
}

void sayLines(int threads, int count, std::size_t size = 0) {
    Together(threads, [=](int thread) {
        for (int i = 0; i < count; ++i) {
            std::string text = "thread " + std::to_string(thread) + " line " + std::to_string(i) + " ";
            text.resize(std::max(size, text.size()), 'x');
            say(text + "end");
        }
    });
}

/// What comes of a process that does this. When its log has ended, it writes its status on standard error.
template <typename Body>
Outcome logged(const std::string& manifest, Body body, int standardOutput = -1, bool closesIt = false) {
    const TemporaryFolder noDaemonHasItsPipeHere;
    const auto outcome = inProcessOfItsOwn(
        [&] {
            if (closesIt) {
                ::close(STDOUT_FILENO);
            }
            ::setenv("DLT_PIPE_DIR", noDaemonHasItsPipeHere.path().c_str(), 1);
            ::setenv("VLM_MACHINE_MANIFEST", manifest.c_str(), 1);
            std::atexit([] { std::cerr << compactText(kyo::Status::snapshot()) << std::endl; });
            kyo::Log::setProductLogger(new vlmProd::VlmAraLogger);
            kyo::Log::setReportingLevel(7);
            body();
        },
        standardOutput);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    return outcome;
}

/// The copy began with what this process has counted.
std::uint64_t droppedBy(const Outcome& outcome) {
    return valueOf(outcome.err)["log"]["dropped"]["console"].asUInt64() - counted("log.dropped.console");
}

struct Pipe {
    static std::array<int, 2> open() {
        std::array<int, 2> both{};
        EXPECT_EQ(::pipe2(both.data(), O_CLOEXEC), 0);
        return both;
    }
    const std::array<int, 2> ends = open();
    Descriptor reader{ends[0]};
    Descriptor writer{ends[1]};
};

/// Returns the number of lines. Each must be whole, and those of a thread in order.
int countLines(const std::string& text) {
    const std::regex shape(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} DEBUG   thread (\d+) line (\d+) x*end)");
    std::map<std::string, int> last;
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
        int& before = last.try_emplace(parts[1].str(), -1).first->second;
        EXPECT_LT(before, std::stoi(parts[2])) << line;
        before = std::stoi(parts[2]);
        ++count;
    }
    return count;
}

/// Does this with a log file. Returns what came on standard error.
template <typename Body>
std::string withLog(const TemporaryFolder& folder, const std::string& log, Body body) {
    return logged(folder.write("m.json", R"({"log": {"console": false, "dlt": false, )" + log + "}}"), body)
        .err;
}

bool isOpenToOthers(const std::string& path) {
    using std::filesystem::perms;
    return (std::filesystem::status(path).permissions() & perms::others_all) != perms::none;
}

}  // namespace

TEST(Console, LinesOfManyThreadsArriveWholeWithTimeAndLevelAlsoWhenTheProcessExitsAtOnce) {
    const auto many = logged("", [] { sayLines(6, 300); });
    EXPECT_EQ(countLines(many.out), 1800);
    EXPECT_EQ(droppedBy(many), 0u);

    const auto named = logged("", [] { say("an error\nof two lines", 3); });
    EXPECT_THAT(named.out, HasSubstr(" ERROR   an error\n    of two lines\n"));
    EXPECT_FALSE(valueOf(named.err)["log"]["dlt"]["connected"].asBool());
}

TEST(Console, AReaderThatComesBackGetsEveryLineThatWasNotCountedAsDropped) {
    Pipe pipe;
    kyo::Counter& counter = kyo::Status::counter("log.dropped.console");
    const auto before = counter.value();
    constexpr int kLines = 20'000;
    std::string arrived;
    const auto readSome = [&] {
        char bytes[5000];
        const auto got = std::max<ssize_t>(::read(pipe.reader, bytes, sizeof bytes), 0);
        arrived.append(bytes, static_cast<std::size_t>(got));
        return got > 0;
    };
    {
        ara::log::ConsoleSink sink(pipe.writer, 256u << 10);
        const auto put = [&sink](int i) {
            sink.put({"thread 0 line " + std::to_string(i) + " " + std::string(60, 'x') + "end", 0, 5}, 0);
            sink.pump();
        };
        for (int i = 0; i < kLines; ++i) {
            put(i);
        }
        EXPECT_TRUE(sink.pending());
        EXPECT_GT(counter.value(), before);
        for (int i = 0; i < kLines; ++i) {
            put(kLines + i);
            readSome();
        }
        while (sink.pending()) {
            readSome();
            sink.pump();
        }
    }
    pipe.writer.close();
    while (readSome()) {
    }
    EXPECT_EQ(static_cast<std::uint64_t>(countLines(arrived)), 2 * kLines - (counter.value() - before));
}

TEST(Console, AReaderThatIsGoneOrNeverWasEndsTheConsoleAndNotTheProcess) {
    const TemporaryFolder folder;
    // Without libdlt, whose exit handler can hang under the thread sanitizer while its threads start.
    const std::string noDlt = folder.write("m.json", R"({"log": {"dlt": false}})");
    Pipe pipe;
    pipe.reader.close();
    const auto gone = logged(
        noDlt,
        [] {
            const auto before = counted("log.dropped.console");
            say("one");
            eventually([&] { return counted("log.dropped.console") > before; });
            say("two");
        },
        pipe.writer);
    EXPECT_EQ(droppedBy(gone), 2u);
    EXPECT_EQ(::fcntl(pipe.writer, F_GETFL) & O_NONBLOCK, 0)
        << "the pipe is shared: its flags are not ours to change";
    const auto closed = logged(
        noDlt, [] { say("one"); }, -1, true);
    EXPECT_EQ(droppedBy(closed), 0u) << "nothing is called dropped";
}

TEST(LogFile, HoldsTheLinesUpToItsOwnLevelRegardlessOfTheLimitForOthers) {
    const TemporaryFolder folder;
    const std::string log = R"("maxLevel": 0, "fileLevel": 3, "file": ")" + folder.file("vlm.log") + "\"";
    withLog(folder, log, [] {
        say("detail");
        say("first", 3);
    });
    withLog(folder, log, [] { say("second", 3); });
    const auto lines = linesOf(readFile(folder.file("vlm.log")));
    EXPECT_FALSE(isOpenToOthers(folder.file("vlm.log")));
    ASSERT_EQ(lines.size(), 2u) << readFile(folder.file("vlm.log"));
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} 3 first)")))
        << lines[0];
    EXPECT_TRUE(lines[1].ends_with(" 3 second"));
}

TEST(LogFile, StartsAgainAtItsLimitAndKeepsThePreviousFile) {
    const TemporaryFolder folder;
    const std::string log = R"("fileMaxBytes": 20000, "file": ")" + folder.file("vlm.log") + "\"";
    // A run's lines may come in one write of nearly 8,000 bytes: six runs need more than two files in any
    // case.
    for (int run = 0; run < 6; ++run) {
        withLog(folder, log, [] { sayLines(1, 60, 100); });
    }
    const std::string now = readFile(folder.file("vlm.log"));
    const std::string before = readFile(folder.file("vlm.log.1"));
    EXPECT_LE(now.size(), 20'000u);
    EXPECT_LE(before.size(), 20'000u);
    EXPECT_TRUE(now.ends_with(" 7 thread 0 line 59 " + std::string(83, 'x') + "end\n"))
        << now.substr(now.size() - 130);
    EXPECT_FALSE(isOpenToOthers(folder.file("vlm.log")));
    const auto kept = linesOf(before + now).size();
    EXPECT_GT(kept, 90u);
    EXPECT_LT(kept, 360u);
}

TEST(LogFile, OneThatCannotBeOpenedIsReportedOnceAndCostsNothingElse) {
    const TemporaryFolder folder;
    const auto said = withLog(folder, R"("file": "/nowhere/vlm.log")", [] { say("one"); });
    EXPECT_EQ(linesOf(said)[0], "The log file /nowhere/vlm.log cannot be opened: No such file or directory");
}
