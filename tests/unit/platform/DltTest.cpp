// The log through a real DLT daemon, private to this test: its own folder for pipes and its own port.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <memory>
#include <optional>

#include "ara/log/DltSink.h"
#include "kyo/Json.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/unit/platform/ChildProcess.h"

using testing::ElementsAre;
using testing::HasSubstr;
using vlmTest::ChildProcess;
using vlmTest::Descriptor;
using vlmTest::eventually;
using vlmTest::openForWriting;
using vlmTest::readFile;

namespace {

int freePort() {
    const Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ::bind(socket, reinterpret_cast<const sockaddr*>(&address), size);
    ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
    return ::ntohs(address.sin_port);
}

bool accepts(int port) {
    const Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    address.sin_port = ::htons(static_cast<std::uint16_t>(port));
    return ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool installed(const char* program) {
    return ::access((std::string("/usr/bin/") + program).c_str(), X_OK) == 0;
}

class Dlt : public testing::Test {
  protected:
    void SetUp() override {
        if (!installed("dlt-daemon") || !installed("dlt-receive") || !installed("stdbuf")) {
            GTEST_SKIP() << "dlt-daemon, dlt-receive and stdbuf are needed";
        }
        m_folder.write("dlt.conf",
                       "SendContextRegistration = 1\nECUId = ECU1\nLoggingMode = 2\nLoggingLevel = 6\n"
                       "LoggingFilename = " +
                           m_folder.file("daemon.log") +
                           "\nTimeOutOnSend = 4\nRingbufferMinSize = 500000\nRingbufferMaxSize = 10000000\n"
                           "RingbufferStepSize = 500000\nPersistanceStoragePath = " +
                           m_folder.path() + "\nControlSocketPath = " + m_folder.file("ctrl.sock") +
                           "\nBindAddress = ::ffff:127.0.0.1\n");
        startDaemon();
        if (IsSkipped()) {
            return;
        }
        startReceiver();
    }

    void startDaemon() {
        m_daemon.emplace(std::vector<std::string>{"dlt-daemon", "-c", m_folder.file("dlt.conf"), "-t",
                                                  m_folder.path(), "-p", std::to_string(m_port)});
        if (!eventually([&] { return accepts(m_port) && ::access(m_folder.file("dlt").c_str(), W_OK) == 0; },
                        [] {}, std::chrono::seconds(10))) {
            GTEST_SKIP() << "no private DLT daemon can be run here";
        }
    }

    void startReceiver() {
        const std::string file = m_folder.file("received" + std::to_string(++m_receivers));
        const Descriptor out(openForWriting(file));
        m_receiver.emplace(std::vector<std::string>{"stdbuf", "-oL", "dlt-receive", "-a", "-p",
                                                    std::to_string(m_port), "127.0.0.1"},
                           std::vector<std::pair<std::string, std::string>>{}, out, out);
        ASSERT_TRUE(
            eventually([&] { return readFile(file).find("New client connection") != std::string::npos; }));
    }

    std::vector<std::pair<std::string, std::string>> environment() const {
        return {{"DLT_PIPE_DIR", m_folder.path()}, {"VLM_MACHINE_MANIFEST", ""}};
    }

    /// What the application sent, in order: "<level> <text>".
    std::vector<std::string> received() const {
        std::vector<std::string> messages;
        for (int i = 1; i <= m_receivers; ++i) {
            for (const std::string& line :
                 vlmTest::linesOf(readFile(m_folder.file("received" + std::to_string(i))))) {
                const auto ours = line.find(" VLM- VLM- log ");
                const auto open = line.find(" V 1 [");
                if (ours == std::string::npos || open == std::string::npos || line.back() != ']') {
                    continue;
                }
                const std::size_t level = ours + 15;
                messages.push_back(line.substr(level, open - level) + " " +
                                   line.substr(open + 6, line.size() - open - 7));
            }
        }
        return messages;
    }

    bool waitFor(const std::string& message) const {
        return eventually([&] {
            const auto all = received();
            return std::find(all.begin(), all.end(), message) != all.end();
        });
    }

    vlmTest::TemporaryFolder m_folder;
    const int m_port = freePort();
    int m_receivers = 0;
    std::optional<ChildProcess> m_daemon;
    std::optional<ChildProcess> m_receiver;
};

}  // namespace

TEST_F(Dlt, MessagesArriveWithTheirLevelDebugIncludedAndWhatWaitsAtTheEndIsFlushed) {
    const Descriptor err(openForWriting(m_folder.file("err")));
    const Descriptor out(openForWriting(m_folder.file("out")));
    ChildProcess probe({LOG_PROBE, "say", "a detail", "@3", "a fault"}, environment(), out, err);
    ASSERT_EQ(probe.wait(), 0);
    ASSERT_TRUE(waitFor("error a fault"));
    EXPECT_THAT(received(), ElementsAre("debug a detail", "error a fault"));
    EXPECT_EQ(vlmTest::linesOf(readFile(m_folder.file("err"))).size(), 1u) << readFile(m_folder.file("err"));
}

TEST_F(Dlt, ALongMessageIsSplitIntoWholeCharactersAndNothingOfItIsLost) {
    std::string text = "begin ";
    while (text.size() < 6000) {
        text += "M\xC3\xBCnchen\xE2\x82\xAC" + std::to_string(text.size()) + " ";
    }
    text += "end";
    const Descriptor out(openForWriting(m_folder.file("out")));
    ChildProcess probe({LOG_PROBE, "say", text, "short"}, environment(), out, out);
    ASSERT_EQ(probe.wait(), 0);
    ASSERT_TRUE(waitFor("debug short"));
    auto pieces = received();
    ASSERT_EQ(pieces.size(), 6u);  // 1,383 bytes each, and the short one
    pieces.pop_back();
    std::string joined;
    for (const std::string& piece : pieces) {
        joined += piece.substr(6);
    }
    EXPECT_EQ(joined, text);
    EXPECT_THAT(readFile(m_folder.file("out")), HasSubstr(text));  // the console has it in one
}

TEST_F(Dlt, ADaemonThatIsKilledAndComesBackGetsTheLogAgainWithDebugMessages) {
    const Descriptor out(openForWriting(m_folder.file("out")));
    int input[2];
    ASSERT_EQ(::pipe2(input, O_CLOEXEC), 0);
    const Descriptor reading(input[0]);
    Descriptor writing(input[1]);
    const std::string command = std::string(LOG_PROBE) + " follow <&" + std::to_string(input[0]);
    ASSERT_EQ(::fcntl(input[0], F_SETFD, 0), 0);
    ChildProcess probe({"bash", "-c", "exec " + command}, environment(), out, out);
    const auto say = [&](const std::string& line) {
        ASSERT_EQ(::write(writing, (line + "\n").data(), line.size() + 1),
                  static_cast<ssize_t>(line.size() + 1));
    };
    const auto console = [&](const std::string& text) {
        return eventually([&] { return readFile(m_folder.file("out")).find(text) != std::string::npos; });
    };
    say("before");
    ASSERT_TRUE(waitFor("debug before"));
    m_daemon.reset();  // by SIGKILL
    ASSERT_TRUE(console("The DLT daemon is gone"));
    say("without a daemon");
    ASSERT_TRUE(console("without a daemon"));
    m_receiver.reset();
    startDaemon();
    startReceiver();
    ASSERT_TRUE(console("The DLT daemon is back"));
    ASSERT_TRUE(waitFor("debug without a daemon")) << "libdlt keeps some messages for a daemon that comes";

    // The new daemon gives the context its default level a moment later, which hides debug messages.
    int number = 0;
    EXPECT_TRUE(eventually(
        [&] {
            const auto all = received();
            return std::find(all.begin(), all.end(), "debug after " + std::to_string(number)) != all.end() &&
                   number >= 30;
        },
        [&] {
            say("after " + std::to_string(++number));
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }));
    writing.close();
    ASSERT_EQ(probe.wait(), 0);
    ASSERT_TRUE(waitFor("debug after " + std::to_string(number)));
    const auto all = received();
    for (int i = 1; i <= number; ++i) {
        EXPECT_EQ(std::count(all.begin(), all.end(), "debug after " + std::to_string(i)), 1) << i;
    }
}

TEST_F(Dlt, ADaemonThatStallsCostsMessagesWhichAreCountedWithoutALineOnStandardError) {
    const Descriptor out(openForWriting(m_folder.file("out")));
    const Descriptor err(openForWriting(m_folder.file("err")));
    m_daemon->send(SIGSTOP);
    ChildProcess probe({LOG_PROBE, "lines", "2", "40000", "200"}, environment(), out, err);
    ASSERT_EQ(probe.wait(), 0) << readFile(m_folder.file("err"));
    m_daemon->send(SIGCONT);
    kyo::Json::Value status;
    kyo::Json::Reader reader;
    ASSERT_TRUE(reader.parse(readFile(m_folder.file("err")), status)) << readFile(m_folder.file("err"));
    EXPECT_GT(status["log"]["dropped"]["dlt"].asUInt64(), 0u);
    EXPECT_EQ(status["log"]["dlt"]["noDaemon"].asUInt64(), 0u);
}

TEST(DltPieces, AreCutBetweenCharactersWhereThereAreSome) {
    using ara::log::pieceLength;
    EXPECT_EQ(pieceLength("short", 10), 5u);
    EXPECT_EQ(pieceLength("", 10), 0u);
    EXPECT_EQ(pieceLength("abcdef", 4), 4u);
    EXPECT_EQ(pieceLength("abc\xC3\xBC"
                          "f",
                          4),
              3u);
    EXPECT_EQ(pieceLength("abc\xC3\xBC"
                          "f",
                          5),
              5u);
    EXPECT_EQ(pieceLength("a\xF0\x9F\x9A\x97", 4), 1u);
    EXPECT_EQ(pieceLength("\x80\x80\x80\x80\x80\x80\x80\x80", 5), 5u);  // no UTF-8: still moves on
    EXPECT_EQ(pieceLength("\xC3\xBC\xC3\xBC", 1), 1u);
}
