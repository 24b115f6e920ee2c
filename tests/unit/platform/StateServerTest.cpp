// The state socket: its protocol, and that no client can hurt another one or the process.
#include "ara/stm/StateServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>

#include "kyo/Status.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/unit/platform/ChildProcess.h"

using ara::stm::StateServer;
using ara::stm::StateServerLimits;
using testing::HasSubstr;
using vlmTest::eventually;
using Confirmation = StateServer::Confirmation;

namespace {

int connectTo(const std::string& path) {
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(socket);
        return -1;
    }
    return socket;
}

class TestClient {
  public:
    explicit TestClient(const std::string& path) : m_socket(connectTo(path)) { EXPECT_GE(m_socket, 0); }

    void send(const std::string& text) {
        EXPECT_EQ(::send(m_socket, text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }
    bool trySend(const std::string& text) {
        return ::send(m_socket, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0;
    }
    void finishSending() { ::shutdown(m_socket, SHUT_WR); }

    /// The next line, without its end; "<closed>" or "<silence>" where none comes.
    std::string line(int limitMs = 20'000) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
        for (;;) {
            if (const auto end = m_in.find('\n'); end != std::string::npos) {
                const std::string result = m_in.substr(0, end);
                m_in.erase(0, end + 1);
                return result;
            }
            pollfd wait{m_socket, POLLIN, 0};
            if (::poll(&wait, 1, 50) == 0) {
                if (std::chrono::steady_clock::now() > deadline) {
                    return "<silence>";
                }
                continue;
            }
            char bytes[4096];
            const auto got = ::recv(m_socket, bytes, sizeof bytes, 0);
            if (got <= 0) {
                return "<closed>";
            }
            m_in.append(bytes, static_cast<std::size_t>(got));
        }
    }
    std::string ask(const std::string& request) {
        send(request + "\n");
        return line();
    }

  private:
    vlmTest::Descriptor m_socket;
    std::string m_in;
};

class StateServerTest : public testing::Test {
  protected:
    std::string path() const { return m_folder.file("vlm.sock"); }

    /// A server that confirms at once, unless the state is called "later".
    void serve(const StateServerLimits& limits = {}) {
        m_server = std::make_unique<StateServer>(
            path(),
            [this](std::uint32_t id, const std::string& state) {
                m_lastId = id;
                if (state == "throw") {
                    throw std::runtime_error("the component failed");
                }
                if (state != "later") {
                    while (m_self.load() == nullptr) {  // asked before serve() has returned
                    }
                    m_lastConfirmation = m_self.load()->confirm(id, state, "success");
                }
            },
            limits);
        m_self = m_server.get();
    }

    void expectAlive() {
        TestClient client(path());
        EXPECT_THAT(client.ask(R"({"request":"status"})"), HasSubstr("\"state\":{\"refused\""));
    }

    vlmTest::TemporaryFolder m_folder;
    std::unique_ptr<StateServer> m_server;
    std::atomic<StateServer*> m_self{nullptr};
    std::atomic<std::uint32_t> m_lastId{0};
    std::atomic<Confirmation> m_lastConfirmation{Confirmation::NotAsked};
};

}  // namespace

TEST_F(StateServerTest, ARequestedStateIsConfirmedWithItsIdAndTheStatusIsAnswered) {
    serve();
    TestClient client(path());
    EXPECT_EQ(client.ask(R"({"request":"state","state":"kPrepSD"})"),
              R"({"requestId":1,"result":"success","state":"kPrepSD"})");
    EXPECT_EQ(client.ask(R"( {"state":"anything", "request":"state"} )"),
              R"({"requestId":2,"result":"success","state":"anything"})");
    kyo::Status::counter("server.test").add(5);
    EXPECT_THAT(client.ask(R"({"request":"status"})"), HasSubstr(R"("server":{"test":5})"));
    EXPECT_EQ(m_lastConfirmation.load(), Confirmation::Sent);
}

TEST_F(StateServerTest, AConfirmationMayComeLaterFromAnotherThreadAndMustMatchTheRequest) {
    serve();
    TestClient client(path());
    TestClient other(path());
    client.send("{\"request\":\"state\",\"state\":\"later\"}");
    client.finishSending();  // the last line needs no end, and the answer still comes
    ASSERT_TRUE(eventually([&] { return m_lastId.load() == 1; }));
    EXPECT_EQ(other.ask(R"({"request":"state","state":"kOn"})"),
              R"({"requestId":2,"result":"success","state":"kOn"})");
    EXPECT_EQ(m_server->confirm(1, "other state", "success"), Confirmation::NotAsked);
    EXPECT_EQ(m_server->confirm(77, "later", "success"), Confirmation::NotAsked);
    EXPECT_EQ(m_server->confirm(1, "later", "generalError"), Confirmation::Sent);
    EXPECT_EQ(client.line(), R"({"requestId":1,"result":"generalError","state":"later"})");
    EXPECT_EQ(client.line(), "<closed>");
    EXPECT_EQ(m_server->confirm(1, "later", "success"), Confirmation::NotAsked);
}

TEST_F(StateServerTest, TheComponentIsToldWhenTheRequesterIsGone) {
    serve();
    {
        TestClient client(path());
        client.send("{\"request\":\"state\",\"state\":\"later\"}\n");
        ASSERT_TRUE(eventually([&] { return m_lastId.load() == 1; }));
    }
    EXPECT_EQ(m_server->confirm(1, "later", "success"), Confirmation::RequesterGone);
    expectAlive();
}

TEST_F(StateServerTest, AStateThatNobodyConfirmsIsAnErrorInTheEnd) {
    StateServerLimits limits;
    limits.confirmation = std::chrono::milliseconds(50);
    serve(limits);
    TestClient client(path());
    for (const char* const state : {"later", "throw"}) {
        const std::string answer = client.ask(std::string(R"({"request":"state","state":")") + state + "\"}");
        EXPECT_THAT(answer, HasSubstr("\"error\":\"the component did not confirm in time\""));
        EXPECT_THAT(answer, HasSubstr("\"requestId\":"));
        EXPECT_EQ(m_server->confirm(m_lastId, state, "success"), Confirmation::NotAsked);
    }
}

TEST_F(StateServerTest, WhatIsNoRequestIsRefusedWithAReasonAndTheConnectionGoesOn) {
    serve();
    TestClient client(path());
    const std::string kGarbage[] = {
        "x",
        "[]",
        "7",
        "{}",
        std::string("\0\0\xFF", 3),
        std::string(3000, '['),
        R"({"request":1})",
        R"({"request":"stop"})",
        R"({"request":"status"}{})",
        R"({"request":"state"})",
        R"({"request":"state","state":""})",
        R"({"request":"state","state":["kOn"]})",
        R"({"request":"state","state":")" + std::string(129, 'k') + "\"}",
    };
    for (const std::string& request : kGarbage) {
        EXPECT_THAT(client.ask(request), testing::StartsWith("{\"error\":\"")) << request;
    }
    EXPECT_EQ(m_lastId.load(), 0u);
    EXPECT_THAT(client.ask("\n \r\n"
                           R"({"request":"status"})"),
                HasSubstr("refused"));  // empty lines are nothing
}

TEST_F(StateServerTest, ARequestWithoutEndIsRefusedAndItsConnectionClosed) {
    serve();
    for (const bool ended : {false, true}) {
        TestClient client(path());
        client.send(std::string(4090, ' ') + R"({"request":"status"})" + (ended ? "\n" : ""));
        EXPECT_THAT(client.line(), HasSubstr("longer than 4096 bytes"));
        EXPECT_EQ(client.line(), "<closed>");
    }
    expectAlive();
}

TEST_F(StateServerTest, AClientThatDawdlesHoldsUpNobodyAndIsLetGo) {
    StateServerLimits limits;
    limits.idle = std::chrono::milliseconds(150);
    serve(limits);
    TestClient slow(path());
    slow.send("{\"request\":");
    expectAlive();
    EXPECT_EQ(slow.line(), "<closed>");
    expectAlive();
}

TEST_F(StateServerTest, AClientThatAsksWithoutReadingHoldsUpNobodyAndFillsNoMemory) {
    serve();
    TestClient greedy(path());
    const std::string many = [] {
        std::string text;
        for (int i = 0; i < 100; ++i) {
            text += "{\"request\":\"status\"}\n";
        }
        return text;
    }();
    int sent = 0;
    while (sent < 2000 && greedy.trySend(many)) {
        ++sent;
    }
    EXPECT_LT(sent, 2000) << "what is not read must stop what can be asked";
    expectAlive();
    EXPECT_THAT(greedy.line(), HasSubstr("refused"));  // and once it reads, it is served on
}

TEST_F(StateServerTest, ManyClientsPushOutTheOneThatIsSilentLongest) {
    StateServerLimits limits;
    limits.clients = 4;
    serve(limits);
    TestClient waiting(path());
    waiting.send("{\"request\":\"state\",\"state\":\"later\"}\n");
    ASSERT_TRUE(eventually([&] { return m_lastId.load() == 1; }));
    std::vector<std::unique_ptr<TestClient>> clients;
    for (int i = 0; i < 40; ++i) {
        clients.push_back(std::make_unique<TestClient>(path()));
        EXPECT_THAT(clients.back()->ask(R"({"request":"status"})"), HasSubstr("refused")) << i;
    }
    EXPECT_EQ(clients[0]->line(), "<closed>");
    EXPECT_EQ(m_server->confirm(1, "later", "success"), Confirmation::Sent);  // one that waits stays
    EXPECT_THAT(waiting.line(), HasSubstr("success"));
}

TEST_F(StateServerTest, TheSocketIsItsOwnersAloneAndGoesWithTheServer) {
    const std::string inner = m_folder.file("made/vlm.sock");
    {
        const StateServer server(inner, [](std::uint32_t, const std::string&) {});
        struct stat info {};
        ASSERT_EQ(::stat(inner.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777u, 0600u);
        ASSERT_EQ(::stat(m_folder.file("made").c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777u, 0700u);
    }
    EXPECT_NE(::access(inner.c_str(), F_OK), 0);
}

TEST_F(StateServerTest, AnotherUserIsRefusedEvenWhereTheFileWouldLetHimIn) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    serve();
    ::chmod(m_folder.path().c_str(), 0755);
    ::chmod(path().c_str(), 0666);
    int report[2];
    ASSERT_EQ(::pipe2(report, O_CLOEXEC), 0);
    const vlmTest::Descriptor reading(report[0]);
    const vlmTest::Descriptor writing(report[1]);
    const pid_t child = ::fork();
    if (child == 0) {
        char verdict = '?';
        if (::setgid(65534) == 0 && ::setuid(65534) == 0) {
            const int socket = connectTo(path());
            const char request[] = "{\"request\":\"status\"}\n";
            char answer[100];
            const bool connected = socket >= 0;
            const ssize_t sent = connected ? ::send(socket, request, sizeof request - 1, MSG_NOSIGNAL) : 0;
            const ssize_t got = connected ? ::recv(socket, answer, sizeof answer, 0) : -1;
            verdict = !connected ? 'n' : got <= 0 ? 'r' : 'a';
            static_cast<void>(sent);
        }
        [[maybe_unused]] const auto written = ::write(report[1], &verdict, 1);
        ::_exit(0);
    }
    ASSERT_GT(child, 0);
    char verdict = 0;
    EXPECT_EQ(::read(reading, &verdict, 1), 1);
    ::waitpid(child, nullptr, 0);
    EXPECT_EQ(verdict, 'r') << "n: could not even connect; a: was answered";
    EXPECT_GE(kyo::Status::counter("state.refused").value(), 1u);
    expectAlive();
}

TEST_F(StateServerTest, ADeadProcessesSocketIsReplacedAndALivingOnesIsNot) {
    {
        const vlmTest::Descriptor dead(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path().data(), path().size());
        ASSERT_EQ(::bind(dead, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    serve();
    expectAlive();
    try {
        const StateServer second(path(), [](std::uint32_t, const std::string&) {});
        ADD_FAILURE() << "a second server took the socket over";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), EADDRINUSE);
    }
    expectAlive();
}

TEST_F(StateServerTest, PlacesThatCannotBeTrustedOrUsedAreRefused) {
    const auto failure = [](const std::string& path) {
        try {
            const StateServer server(path, [](std::uint32_t, const std::string&) {});
        } catch (const std::system_error& error) {
            return error.code().value();
        }
        return 0;
    };
    m_folder.write("a-file", "precious");
    EXPECT_EQ(failure(m_folder.file("a-file")), EEXIST);
    EXPECT_EQ(vlmTest::readFile(m_folder.file("a-file")), "precious");
    EXPECT_EQ(failure(m_folder.file(std::string(120, 'x'))), ENAMETOOLONG);
    EXPECT_EQ(failure(m_folder.file("no/such/folder.sock")), ENOENT);
    ASSERT_EQ(::mkdir(m_folder.file("open").c_str(), 0700), 0);
    ::chmod(m_folder.file("open").c_str(), 0777);
    EXPECT_EQ(failure(m_folder.file("open/vlm.sock")), EPERM);
}

// Requests race with the end of the server.
TEST_F(StateServerTest, TheServerCanEndWhileClientsAsk) {
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> handled{0};
        auto server =
            std::make_unique<StateServer>(path(), [&](std::uint32_t, const std::string&) { ++handled; });
        TestClient client(path());
        client.send(
            "{\"request\":\"state\",\"state\":\"a\"}\n{\"request\":\"status\"}\n{\"request\":\"state\","
            "\"state\":\"b\"}\n");
        server.reset();
        EXPECT_LE(handled.load(), 2);
    }
}
