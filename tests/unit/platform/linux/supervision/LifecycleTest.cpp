// The notifications to the service manager.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "ara/exec/application_client.h"
#include "ara/phm/supervision.h"
#include "tests/support/ChildProcess.h"

namespace {

class ServiceManager {
  public:
    ServiceManager() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = m_folder.file("notify");
        std::memcpy(address.sun_path, path.data(), path.size());
        EXPECT_EQ(::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    ~ServiceManager() { ::unsetenv("NOTIFY_SOCKET"); }

    /// The next notification, or empty.
    std::string next() {
        char text[512];
        const auto got = ::recv(m_socket, text, sizeof text, MSG_DONTWAIT);
        return std::string(text, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    }

  private:
    vlmTest::TemporaryFolder m_folder;
    vlmTest::Descriptor m_socket{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

}  // namespace

TEST(Lifecycle, TheServiceManagerHearsReadyEachCheckpointAndStopping) {
    ServiceManager manager;
    ara::exec::ApplicationClient application;
    application.ReportApplicationState(ara::exec::ApplicationState::kRunning);
    EXPECT_EQ(manager.next(), "READY=1\nSTATUS=Running");

    ara::phm::Phm_client client("vlmmaster");
    ara::phm::SupervisionEntity entity(client);
    EXPECT_EQ(manager.next(), "");
    entity.CheckpointReached(6521, 6521);
    entity.CheckpointReached(6521, 6521);
    EXPECT_EQ(manager.next(), "WATCHDOG=1");
    EXPECT_EQ(manager.next(), "WATCHDOG=1");

    application.ReportApplicationState(ara::exec::ApplicationState::kTerminating);
    EXPECT_EQ(manager.next(), "STOPPING=1\nSTATUS=Terminating");
    EXPECT_EQ(manager.next(), "");
}
