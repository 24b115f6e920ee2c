// The log file that the manifest names.
#include <regex>

#include "tests/support/ChildProcess.h"
#include "tests/support/Test.h"

using namespace vlmTest;

namespace {

/// Runs the probe and returns its standard error.
std::string runWithLog(const TemporaryFolder& folder, const std::string& log,
                       std::vector<std::string> words) {
    const std::string manifest =
        folder.write("m.json", "{\"log\": {\"console\": false, \"dlt\": false, " + log + "}}");
    words.insert(words.begin(), LOG_PROBE);
    const auto outcome = runToItsEnd(words, {"VLM_MACHINE_MANIFEST=" + manifest});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    return outcome.err;
}

bool isOpenToOthers(const std::string& path) {
    using std::filesystem::perms;
    return (std::filesystem::status(path).permissions() & perms::others_all) != perms::none;
}

}  // namespace

TEST(LogFile, HoldsTheLinesUpToItsOwnLevelRegardlessOfTheLimitForOthers) {
    const TemporaryFolder folder;
    const std::string log = R"("maxLevel": 0, "fileLevel": 3, "file": ")" + folder.file("vlm.log") + "\"";
    runWithLog(folder, log, {"say", "detail", "@3", "first"});
    runWithLog(folder, log, {"say", "@3", "second"});
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
        runWithLog(folder, log, {"lines", "1", "60", "100"});
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
    const auto said = runWithLog(folder, R"("file": "/nowhere/vlm.log")", {"lines", "1", "10"});
    EXPECT_EQ(linesOf(said)[0], "The log file /nowhere/vlm.log cannot be opened: No such file or directory");
}
