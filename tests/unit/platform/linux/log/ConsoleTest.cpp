// Lines on standard output: their format, and a missing reader.
#include <array>
#include <regex>

#include "log/ConsoleSink.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Test.h"

using namespace vlmTest;

namespace {

/// Runs the probe with its standard output at the given descriptor, or else in a file.
Outcome probe(std::vector<std::string> words, int standardOutput = -1) {
    const TemporaryFolder noDaemonHasItsPipeHere;
    words.insert(words.begin(), LOG_PROBE);
    auto outcome = runToItsEnd(
        words, {"DLT_PIPE_DIR=" + noDaemonHasItsPipeHere.path(), "VLM_MACHINE_MANIFEST="}, standardOutput);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    return outcome;
}

std::uint64_t droppedBy(const Outcome& outcome) {
    return valueOf(outcome.err)["log"]["dropped"]["console"].asUInt64();
}

struct Pipe {
    static std::array<int, 2> open() {
        std::array<int, 2> both{};
        EXPECT_EQ(::pipe2(both.data(), O_CLOEXEC), 0);
        return both;
    }
    /// The content, once nobody writes any more.
    std::string rest() {
        writer.close();
        std::string text;
        char bytes[65536];
        for (ssize_t got = 0; (got = ::read(reader, bytes, sizeof bytes)) > 0;) {
            text.append(bytes, static_cast<std::size_t>(got));
        }
        return text;
    }

    const std::array<int, 2> ends = open();
    Descriptor reader{ends[0]};
    Descriptor writer{ends[1]};
};

/// Returns the number of lines. Each must be whole, and those of a thread in order.
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

}  // namespace

TEST(Console, LinesOfManyThreadsArriveWholeWithTimeAndLevelAlsoWhenTheProcessExitsAtOnce) {
    const auto many = probe({"lines", "6", "300"});
    EXPECT_EQ(countLines(many.out), 1800);
    EXPECT_EQ(droppedBy(many), 0u);

    const auto named = probe({"say", "@3", "an error\nof two lines"});
    EXPECT_THAT(named.out, HasSubstr(" ERROR   an error\n    of two lines\n"));
    EXPECT_FALSE(valueOf(named.err)["log"]["dlt"]["connected"].asBool());
}

TEST(Console, AReaderThatComesBackGetsEveryLineThatWasNotCountedAsDropped) {
    Pipe pipe;
    kyo::Counter& counter = kyo::Status::counter("log.dropped.console");
    const auto before = counter.value();
    constexpr int kLines = 20'000;
    std::string arrived;
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
        const auto readSome = [&] {
            char bytes[5000];
            const auto got = ::read(pipe.reader, bytes, sizeof bytes);
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
    arrived += pipe.rest();
    EXPECT_EQ(static_cast<std::uint64_t>(countLines(arrived)), 2 * kLines - (counter.value() - before));
}

TEST(Console, AReaderThatIsGoneOrNeverWasEndsTheConsoleAndNotTheProcess) {
    Pipe pipe;
    pipe.reader.close();
    EXPECT_GE(droppedBy(probe({"say", "one", "@300", "two", "@300", "three"}, pipe.writer)), 2u);
    EXPECT_EQ(::fcntl(pipe.writer, F_GETFL) & O_NONBLOCK, 0)
        << "the pipe is shared: its flags are not ours to change";
    const auto closed = runToItsEnd({"bash", "-c", std::string("exec ") + LOG_PROBE + " say one two >&-"},
                                    {"VLM_MACHINE_MANIFEST="});
    EXPECT_EQ(closed.status, 0);
    EXPECT_EQ(droppedBy(closed), 0u) << "nothing is called dropped";
}
