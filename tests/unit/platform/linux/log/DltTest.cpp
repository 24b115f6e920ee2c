// The log through a real DLT daemon with its own folder for pipes and its own port.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <optional>

#include "log/DltSink.h"
#include "tests/support/ChildProcess.h"

using testing::ElementsAre;
using testing::HasSubstr;
using vlmTest::ChildProcess;
using vlmTest::Descriptor;
using vlmTest::eventually;
using vlmTest::readFile;

namespace {

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    address.sin_port = ::htons(static_cast<std::uint16_t>(port));
    return address;
}

int freePort() {
    const Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    auto address = loopback(0);
    socklen_t size = sizeof address;
    ::bind(socket, reinterpret_cast<const sockaddr*>(&address), size);
    ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
    return ::ntohs(address.sin_port);
}

bool accepts(int port) {
    const Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto address = loopback(port);
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
        m_daemon.emplace(std::vector<std::string>{"dlt-daemon", "-c", m_folder.file("dlt.conf"), "-t",
                                                  m_folder.path(), "-p", std::to_string(m_port)});
        if (!eventually([&] { return accepts(m_port) && ::access(m_folder.file("dlt").c_str(), W_OK) == 0; },
                        [] {}, std::chrono::seconds(10))) {
            GTEST_SKIP() << "no private DLT daemon can be run here";
        }
        const Descriptor out(vlmTest::openForWriting(m_received));
        m_receiver.emplace(std::vector<std::string>{"stdbuf", "-oL", "dlt-receive", "-a", "-p",
                                                    std::to_string(m_port), "127.0.0.1"},
                           std::vector<std::string>{}, out, out);
        ASSERT_TRUE(eventually(
            [&] { return readFile(m_received).find("New client connection") != std::string::npos; }));
    }

    /// Runs the probe until the daemon has forwarded `last`. Returns the messages as "<level> <text>", in
    /// order.
    std::vector<std::string> received(std::vector<std::string> words, const std::string& last) {
        words.insert(words.begin(), {LOG_PROBE, "say"});
        m_outcome = vlmTest::runToItsEnd(words, {"DLT_PIPE_DIR=" + m_folder.path(), "VLM_MACHINE_MANIFEST="});
        EXPECT_EQ(m_outcome.status, 0);
        std::vector<std::string> messages;
        EXPECT_TRUE(eventually([&] {
            messages.clear();
            for (const std::string& line : vlmTest::linesOf(readFile(m_received))) {
                const auto ours = line.find(" VLM- VLM- log ");
                const auto open = line.find(" V 1 [");
                if (ours == std::string::npos || open == std::string::npos || line.back() != ']') {
                    continue;
                }
                const std::size_t level = ours + 15;
                messages.push_back(line.substr(level, open - level) + " " +
                                   line.substr(open + 6, line.size() - open - 7));
            }
            return !messages.empty() && messages.back() == last;
        }));
        return messages;
    }

    vlmTest::TemporaryFolder m_folder;
    const std::string m_received = m_folder.file("received");
    const int m_port = freePort();
    std::optional<ChildProcess> m_daemon;
    std::optional<ChildProcess> m_receiver;
    vlmTest::Outcome m_outcome;
};

}  // namespace

TEST_F(Dlt, MessagesArriveWithTheirLevelDebugIncludedAndWhatWaitsAtTheEndIsFlushed) {
    EXPECT_THAT(received({"a detail", "@3", "a fault"}, "error a fault"),
                ElementsAre("debug a detail", "error a fault"));
    EXPECT_EQ(vlmTest::linesOf(m_outcome.err).size(), 1u) << m_outcome.err;
}

TEST_F(Dlt, ALongMessageIsSplitIntoWholeCharactersAndNothingOfItIsLost) {
    std::string text = "begin ";
    while (text.size() < 6000) {
        text += "M\xC3\xBCnchen\xE2\x82\xAC" + std::to_string(text.size()) + " ";
    }
    text += "end";
    auto pieces = received({text, "short"}, "debug short");
    ASSERT_EQ(pieces.size(), 6u);  // pieces of 1,383 bytes, and the short line
    pieces.pop_back();
    std::string joined;
    for (const std::string& piece : pieces) {
        joined += piece.substr(6);
    }
    EXPECT_EQ(joined, text);
    EXPECT_THAT(m_outcome.out, HasSubstr(text));  // the console does not split it
}

TEST(DltPieces, AreCutBetweenCharactersWhereThereAreSome) {
    using ara::log::pieceLength;
    const std::string text = "abc\xC3\xBC\xF0\x9F\x9A\x97";
    EXPECT_EQ(pieceLength(text, 10), text.size());
    const std::size_t expected[] = {1, 2, 3, 3, 5, 5, 5, 5, 9};
    for (std::size_t limit = 1; limit <= 9; ++limit) {
        EXPECT_EQ(pieceLength(text, limit), expected[limit - 1]) << limit;
    }
    EXPECT_EQ(pieceLength("\x80\x80\x80\x80\x80\x80\x80\x80", 5), 5u);  // no UTF-8: still advances
    EXPECT_EQ(pieceLength("\xC3\xBC\xC3\xBC", 1), 1u);
}
