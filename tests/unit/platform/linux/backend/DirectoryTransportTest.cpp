/// A folder as the backend: its content after good and bad days.
#include <botan/base64.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "backend/DirectoryTransport.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TransportClient.h"

namespace {
std::atomic<int> dataFlushes{0};
std::atomic<int> folderFlushes{0};
}  // namespace

// Instead of the C library's, to count: nothing else shows what is safe from a loss of power.
extern "C" int fdatasync(int handle) {
    ++dataFlushes;
    return static_cast<int>(::syscall(SYS_fdatasync, handle));
}
extern "C" int fsync(int handle) {
    ++folderFlushes;
    return static_cast<int>(::syscall(SYS_fsync, handle));
}

namespace {

using namespace kyo::orx;
using namespace vlmTest;

std::string lineOf(const kyo::Json::Value& value) {
    return compactText(value) + '\n';
}

struct Backend : StartedTransport<DirectoryTransport> {
    explicit Backend(const std::string& folder, std::vector<std::string> offered = {"TypeA"},
                     machine::MessageLimits limits = {})
        : StartedTransport(machine::DirectoryBackend{folder, "collector.json"},
                           kyo::orx::Presence{"Catalog 1", std::move(offered)}, limits) {}
    /// Asks for the configuration, and waits for the answer.
    kyo::Json::Value answer() {
        const std::size_t before = answers().size();
        EXPECT_EQ(transport().requestConfiguration(), 0);
        return awaitAnswers(before + 1) ? answers().back() : kyo::Json::Value();
    }
};

struct DirectoryBackend : Test {
    TemporaryFolder m_folder;
    const std::string m_file = m_folder.file("envelopes.jsonl");
    LogCapture m_log;
};

TEST_F(DirectoryBackend, OpensTheChannelStoresEachEnvelopeAndAnswersItWithWholeMessages) {
    const std::string deep = m_folder.file("made/when/missing");
    Backend backend(deep, {"TypeA", "TypeB"});
    ASSERT_TRUE(backend.awaitControls(1));
    dataFlushes = folderFlushes = 0;
    EXPECT_EQ(backend.transport().send(envelope("1")), 0);
    EXPECT_EQ(readFile(deep + "/envelopes.jsonl"), lineOf(envelope("1"))) << "there when the send returns";
    EXPECT_EQ(backend.transport().send(envelope("2")), 0);
    EXPECT_EQ(dataFlushes, 2);
    EXPECT_EQ(folderFlushes, 1) << "the new file's name";
    ASSERT_TRUE(backend.awaitControls(3));
    EXPECT_EQ(readFile(deep + "/envelopes.jsonl"), lineOf(envelope("1")) + lineOf(envelope("2")));
    for (const auto& message : backend.controls()) {
        EXPECT_EQ(message,
                  kyo::orx::masterControl(message["eventTicket"].asString(), {"TypeA", "TypeB"}, 0, 0));
    }
}

TEST_F(DirectoryBackend, AnswersWithTheConfigurationFileNamedAfterItsContent) {
    const std::string text = "{\"CONFIG\": \xE2\x82\xAC}";
    m_folder.write("collector.json", text);
    Backend backend(m_folder.path(), {});
    ASSERT_TRUE(backend.awaitControls(1));
    EXPECT_EQ(backend.controls()[0]["permittedDataType"].size(), 1u) << "its own, as none is offered";
    const kyo::Json::Value record = backend.answer()[0];
    const auto body = Botan::base64_decode(record["recordBody"].asString());
    EXPECT_EQ(std::string(body.begin(), body.end()), text);

    m_folder.write("collector.json", text + " ");
    EXPECT_NE(backend.answer()[0]["recordId"], record["recordId"]);

    std::filesystem::remove(m_folder.file("collector.json"));
    EXPECT_EQ(backend.answer(), kyo::Json::Value(kyo::Json::arrayValue));
    EXPECT_TRUE(m_log.hasPart(3, "collector.json cannot be read: No such file"));

    m_folder.write("collector.json", std::string(2000, ' '));
    EXPECT_EQ(Backend(m_folder.path(), {}, {1024, 2048}).answer(), kyo::Json::Value(kyo::Json::arrayValue));
    EXPECT_TRUE(m_log.hasPart(3, "2000 bytes in base64 are more than backend.maxConfigurationBytes (2048)"));
}

TEST_F(DirectoryBackend, CutsOffWhatACrashLeftOfALineAndTakesNothingMoreWhenTheProcessEnds) {
    const std::string whole = lineOf(envelope("old", 9000));
    m_folder.write("envelopes.jsonl", whole + "{\"messageId\":\"half" + std::string(9000, 'y'));
    Backend backend(m_folder.path());
    EXPECT_EQ(backend.transport().send(envelope("new")), 0);
    EXPECT_EQ(readFile(m_file), whole + lineOf(envelope("new")));

    m_folder.write("envelopes.jsonl", "no line end at all");
    EXPECT_EQ(backend.transport().send(envelope("new")), 0);
    backend.transport().leave();
    EXPECT_EQ(backend.transport().send(envelope("late")), -ESHUTDOWN);
    EXPECT_EQ(readFile(m_file), lineOf(envelope("new")));
}

/// A limit of file size is used for a full disk: the write ends in the middle, with an error.
void limitFileSize(rlim_t bytes) {
    rlimit limit{};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = std::min(bytes, limit.rlim_max);
    ::setrlimit(RLIMIT_FSIZE, &limit);
}

TEST_F(DirectoryBackend, LeavesNoPartOfALineOnAFullDiskLogsOnceAndOpensTheChannelWhenThereIsSpace) {
    Backend backend(m_folder.path());
    ASSERT_TRUE(backend.awaitControls(1));
    ASSERT_EQ(backend.transport().send(envelope("kept", 100)), 0);
    ASSERT_TRUE(backend.awaitControls(2));
    const std::string before = readFile(m_file);

    limitFileSize(1000);
    const auto failed = counted("orx.failed");
    EXPECT_EQ(backend.transport().send(envelope("big", 5000)), -EFBIG);
    EXPECT_EQ(backend.transport().send(envelope("big", 5000)), -EFBIG);
    EXPECT_EQ(counted("orx.failed"), failed + 2);
    EXPECT_EQ(readFile(m_file), before);
    // A probe in the meantime must not mistake room for a small line for room for this one.
    const auto touched = std::filesystem::last_write_time(m_folder.path());
    ASSERT_TRUE(eventually([&] { return std::filesystem::last_write_time(m_folder.path()) != touched; }));
    EXPECT_EQ(backend.controls().size(), 2u);

    limitFileSize(RLIM_INFINITY);
    ASSERT_TRUE(backend.awaitControls(3));
    EXPECT_EQ(backend.transport().send(envelope("big", 5000)), 0);
    EXPECT_EQ(readFile(m_file), before + lineOf(envelope("big", 5000)));
    EXPECT_FALSE(std::filesystem::exists(m_file + ".probe"));
    EXPECT_THAT(m_log.messages(3), ElementsAre(HasSubstr("File too large")));
    EXPECT_EQ(m_log.count(5, m_file + " can be written again"), 1u);
}

TEST_F(DirectoryBackend, WaitsForAFolderThatCannotBeMade) {
    const std::string blocked = m_folder.write("folder", "a file is where the folder should be");
    Backend backend(blocked);
    ASSERT_TRUE(m_log.waitFor("cannot be written: Not a directory"));
    EXPECT_LT(backend.transport().send(envelope("1")), 0);
    EXPECT_TRUE(backend.controls().empty());
    std::filesystem::remove(blocked);
    ASSERT_TRUE(backend.awaitControls(1));
    EXPECT_EQ(m_log.messages(3).size(), 1u);
    EXPECT_EQ(backend.transport().send(envelope("1")), 0);
}

TEST_F(DirectoryBackend, WritesIntoAPlainFileAloneAndTriesAgainThoughNoFurtherCallbackWasTakenWhenItFailed) {
    Backend backend(m_folder.path());
    ASSERT_TRUE(backend.awaitControls(1));
    {
        const std::lock_guard<std::mutex> busy(backend.busy);
        while (backend.transport().requestConfiguration() == 0) {
        }
        std::filesystem::remove(m_file);
        std::filesystem::create_directory(m_file);
        EXPECT_EQ(backend.transport().send(envelope("1")), -EISDIR);
    }
    std::filesystem::remove(m_file);
    EXPECT_TRUE(backend.awaitControls(2));
    EXPECT_EQ(backend.transport().send(envelope("1")), 0);
}

TEST(CallbackThreadTest, KeepsOrderSurvivesExceptionsAndForgetsWhatWaitsWhenStopped) {
    LogCapture log;
    CallbackThread callbacks;
    SharedList<int> done;
    const auto note = [&done](int value) { return [&done, value] { done.add(value); }; };
    callbacks.post(note(3), std::chrono::milliseconds(50));
    callbacks.post(note(1));
    callbacks.post([] { throw std::runtime_error("deliberate"); });
    callbacks.post(note(2));
    callbacks.post(note(99), std::chrono::hours(1));
    ASSERT_TRUE(eventually([&] { return done.size() == 3; }));
    EXPECT_THAT(done.all(), ElementsAre(1, 2, 3));
    EXPECT_TRUE(log.has(3, "A callback failed: deliberate"));
    callbacks.stop();
    EXPECT_FALSE(callbacks.post(note(4)));
}

}  // namespace
