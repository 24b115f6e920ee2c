#include "supervision/ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/support/ChildProcess.h"
#include "tests/support/Test.h"

namespace {

using kyo::notifyServiceManager;

TEST(ServiceManager, ReceivesNotificationsAtAnAbstractName) {
    const std::string place = "@vlmmaster-test-" + std::to_string(::getpid());
    const vlmTest::Descriptor manager(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    place.copy(address.sun_path + 1, place.size() - 1, 1);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + place.size());
    ASSERT_EQ(::bind(manager, reinterpret_cast<const sockaddr*>(&address), size), 0);
    ::setenv("NOTIFY_SOCKET", place.c_str(), 1);
    EXPECT_GT(notifyServiceManager("READY=1\nSTATUS=Running"), 0);
    std::string received(256, '\0');
    received.resize(std::max<ssize_t>(::recv(manager, received.data(), 256, MSG_DONTWAIT), 0));
    EXPECT_EQ(received, "READY=1\nSTATUS=Running");
}

TEST(ServiceManager, IsNotNeededAndItsAbsenceIsAnError) {
    ::unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(notifyServiceManager("WATCHDOG=1"), 0);
    const vlmTest::TemporaryFolder folder;
    for (const auto& [place, error] : {std::pair<std::string, int>{folder.file("nobody"), ENOENT},
                                       {"/" + std::string(sizeof(sockaddr_un::sun_path), 'x'), E2BIG},
                                       {"vsock:2:1234", EAFNOSUPPORT}}) {
        ::setenv("NOTIFY_SOCKET", place.c_str(), 1);
        EXPECT_EQ(notifyServiceManager("WATCHDOG=1"), -error) << place;
    }
    ::unsetenv("NOTIFY_SOCKET");
}

}  // namespace
