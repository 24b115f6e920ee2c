// The state socket: its protocol, and its protection against bad clients.
#include "state/StateServer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <system_error>

#include "tests/support/ChildProcess.h"
#include "tests/support/Test.h"

using namespace ara::stm;
using namespace vlmTest;
using Confirmation = StateServer::Confirmation;

namespace {

/// Calls ::bind or ::connect.
int at(const std::string& path, int (*call)(int, const sockaddr*, socklen_t), int socket) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    return call(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

class TestClient {
  public:
    explicit TestClient(const std::string& path) {
        EXPECT_EQ(at(path, ::connect, m_socket), 0);
        const timeval reading{20, 0};
        ::setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &reading, sizeof reading);
        const timeval writing{0, 300'000};
        ::setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &writing, sizeof writing);
    }

    /// Returns false when the server accepts no more bytes.
    bool send(const std::string& text) {
        return ::send(m_socket, text.data(), text.size(), MSG_NOSIGNAL) > 0;
    }
    void finishSending() { ::shutdown(m_socket, SHUT_WR); }

    /// The next line, without its end; "<closed>" or "<silence>" if none comes.
    std::string line() {
        std::string text;
        char byte = 0;
        ssize_t got = 0;
        while ((got = ::recv(m_socket, &byte, 1, 0)) == 1 && byte != '\n') {
            text.push_back(byte);
        }
        return got == 1 ? text : got < 0 && errno == EAGAIN ? "<silence>" : "<closed>";
    }
    std::string ask(const std::string& request) {
        EXPECT_TRUE(send(request + "\n"));
        return line();
    }

  private:
    const Descriptor m_socket{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

const std::string kStatus = R"({"request":"status"})";

std::string stateRequest(const std::string& state) {
    return R"({"request":"state","state":")" + state + "\"}";
}

struct StateServerTest : Test {
    std::string path() const { return m_folder.file("vlm.sock"); }

    /// Starts a server that confirms at once, except the state "later".
    void serve(const StateServerLimits& limits = {}) {
        m_server = std::make_unique<StateServer>(
            path(),
            [this](std::uint32_t id, const std::string& state) {
                m_lastId = id;
                if (state == "throw") {
                    throw std::runtime_error("the component failed");
                }
                if (state != "later") {
                    while (m_self.load() == nullptr) {  // requested before serve() has returned
                    }
                    m_self.load()->confirm(id, state, "success");
                }
            },
            limits);
        m_self = m_server.get();
    }

    /// The error of creating a server at `path`, or 0.
    static int failure(const std::string& path) {
        try {
            const StateServer server(path, [](std::uint32_t, const std::string&) {});
        } catch (const std::system_error& error) {
            return error.code().value();
        }
        return 0;
    }

    /// Lets the client request the state "later" as request 1.
    void requestLater(TestClient& client) {
        client.send(stateRequest("later"));
        client.finishSending();  // the last line needs no line end; the answer still comes
        ASSERT_TRUE(eventually([&] { return m_lastId.load() == 1; }));
    }

    void expectAlive() { EXPECT_THAT(TestClient(path()).ask(kStatus), HasSubstr("\"state\":{\"refused\"")); }

    TemporaryFolder m_folder;
    std::unique_ptr<StateServer> m_server;
    std::atomic<StateServer*> m_self{nullptr};
    std::atomic<std::uint32_t> m_lastId{0};
};

}  // namespace

TEST_F(StateServerTest, StatesAreConfirmedWithTheirIdAndWhatIsNoRequestIsRefusedWithAReason) {
    serve();
    TestClient client(path());
    const std::string kGarbage[] = {"x",
                                    "[]",
                                    "{}",
                                    std::string("\0\0\xFF", 3),
                                    std::string(3000, '['),
                                    R"({"request":1})",
                                    R"({"request":"stop"})",
                                    R"({"request":"status"}{})",
                                    R"({"request":"state"})",
                                    R"({"request":"state","state":["kOn"]})",
                                    stateRequest(""),
                                    stateRequest(std::string(129, 'k'))};
    for (const std::string& request : kGarbage) {
        EXPECT_THAT(client.ask(request), StartsWith("{\"error\":\"")) << request;
    }
    EXPECT_EQ(client.ask(stateRequest("kPrepSD")), R"({"requestId":1,"result":"success","state":"kPrepSD"})");
    EXPECT_EQ(client.ask(R"( {"state":"anything", "request":"state"} )"),
              R"({"requestId":2,"result":"success","state":"anything"})");
    kyo::Status::counter("server.test").add(5);
    EXPECT_THAT(client.ask("\n \r\n" + kStatus),
                HasSubstr(R"("server":{"test":5})"));  // empty lines are ignored

    for (const char* const end : {"", "\n"}) {
        TestClient endless(path());
        endless.send(std::string(4090, ' ') + kStatus + end);
        EXPECT_THAT(endless.line(), HasSubstr("longer than 4096 bytes"));
        EXPECT_EQ(endless.line(), "<closed>");
    }
    expectAlive();
}

TEST_F(StateServerTest, AConfirmationMayComeLaterFromAnotherThreadAndMustMatchTheRequest) {
    serve();
    TestClient client(path());
    requestLater(client);
    EXPECT_EQ(TestClient(path()).ask(stateRequest("kOn")),
              R"({"requestId":2,"result":"success","state":"kOn"})");
    EXPECT_EQ(m_server->confirm(1, "other state", "success"), Confirmation::NotAsked);
    EXPECT_EQ(m_server->confirm(77, "later", "success"), Confirmation::NotAsked);
    EXPECT_EQ(m_server->confirm(1, "later", "generalError"), Confirmation::Sent);
    EXPECT_EQ(client.line(), R"({"requestId":1,"result":"generalError","state":"later"})");
    EXPECT_EQ(client.line(), "<closed>");
    EXPECT_EQ(m_server->confirm(1, "later", "success"), Confirmation::NotAsked);
    {
        TestClient gone(path());
        gone.send(stateRequest("later") + "\n");
        ASSERT_TRUE(eventually([&] { return m_lastId.load() == 3; }));
    }
    EXPECT_EQ(m_server->confirm(3, "later", "success"), Confirmation::RequesterGone);
}

TEST_F(StateServerTest, AStateThatNobodyConfirmsIsAnErrorInTheEnd) {
    serve({.confirmation = 50ms});
    TestClient client(path());
    for (const char* const state : {"later", "throw"}) {
        EXPECT_THAT(client.ask(stateRequest(state)),
                    AllOf(HasSubstr("\"error\":\"the component did not confirm in time\""),
                          HasSubstr("\"requestId\":")));
        EXPECT_EQ(m_server->confirm(m_lastId, state, "success"), Confirmation::NotAsked);
    }
}

TEST_F(StateServerTest, AClientThatDawdlesOrReadsNothingHoldsUpNobodyAndIsLetGoOrFillsNoMemory) {
    serve({.idle = 150ms});
    TestClient waiting(path());
    requestLater(waiting);
    TestClient slow(path());
    slow.send("{\"request\":");
    expectAlive();
    EXPECT_EQ(slow.line(), "<closed>");
    EXPECT_EQ(m_server->confirm(1, "later", "success"), Confirmation::Sent) << "who waits is not idle";

    m_server.reset();
    serve();
    TestClient greedy(path());
    std::string many;
    for (int i = 0; i < 100; ++i) {
        many += kStatus + "\n";
    }
    int sent = 0;
    while (sent < 2000 && greedy.send(many)) {
        ++sent;
    }
    EXPECT_LT(sent, 2000) << "what is not read must stop what can be asked";
    expectAlive();
    EXPECT_THAT(greedy.line(), HasSubstr("refused"));  // is served again once it reads
}

TEST_F(StateServerTest, ManyClientsPushOutTheOneThatIsSilentLongest) {
    serve({.clients = 4});
    TestClient waiting(path());
    requestLater(waiting);
    std::vector<std::unique_ptr<TestClient>> clients;
    for (int i = 0; i < 40; ++i) {
        clients.push_back(std::make_unique<TestClient>(path()));
        EXPECT_THAT(clients.back()->ask(kStatus), HasSubstr("refused")) << i;
    }
    EXPECT_EQ(clients[0]->line(), "<closed>");
    EXPECT_EQ(m_server->confirm(1, "later", "success"), Confirmation::Sent);  // a waiting client stays
    EXPECT_THAT(waiting.line(), HasSubstr("success"));
}

TEST_F(StateServerTest, AnotherUserIsRefusedEvenWhereTheFileWouldLetHimIn) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    serve();
    ::chmod(m_folder.path().c_str(), 0755);
    ::chmod(path().c_str(), 0666);
    const auto other = inProcessOfItsOwn([this] {
        const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
        char answer[100];
        const bool connected =
            ::setgid(65534) == 0 && ::setuid(65534) == 0 && at(path(), ::connect, socket) == 0;
        static_cast<void>(::send(socket, (kStatus + "\n").c_str(), kStatus.size() + 1, MSG_NOSIGNAL));
        ::_exit(!connected ? 1 : ::recv(socket, answer, sizeof answer, 0) > 0 ? 2 : 0);
    });
    EXPECT_EQ(other.status, 0) << "1: could not even connect; 2: was answered";
    EXPECT_GE(counted("state.refused"), 1u);
    expectAlive();
}

TEST_F(StateServerTest, TheSocketIsItsOwnersAloneAndReplacesADeadOneButNothingThatLivesOrCannotBeTrusted) {
    {
        const Descriptor dead(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(at(path(), ::bind, dead), 0);
    }
    serve();  // in place of a dead process's
    EXPECT_EQ(failure(path()), EADDRINUSE);
    expectAlive();
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

    EXPECT_EQ(failure(m_folder.write("a-file", "precious")), EEXIST);
    EXPECT_EQ(readFile(m_folder.file("a-file")), "precious");
    EXPECT_EQ(failure(m_folder.file(std::string(120, 'x'))), ENAMETOOLONG);
    EXPECT_EQ(failure(m_folder.file("no/such/folder.sock")), ENOENT);
    ::chmod(m_folder.file("made").c_str(), 0777);
    EXPECT_EQ(failure(inner), EPERM);
}

// Requests come while the server shuts down.
TEST_F(StateServerTest, TheServerCanEndWhileClientsAsk) {
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> handled{0};
        auto server =
            std::make_unique<StateServer>(path(), [&](std::uint32_t, const std::string&) { ++handled; });
        TestClient client(path());
        client.send(stateRequest("a") + "\n" + kStatus + "\n" + stateRequest("b") + "\n");
        server.reset();
        EXPECT_LE(handled.load(), 2);
    }
}
