#include "supervision/ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/support/Test.h"

namespace {

using kyo::notifyServiceManager;

/// A service manager at a place as NOTIFY_SOCKET names it.
class Manager {
  public:
    explicit Manager(const std::string& place) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        place.copy(address.sun_path, place.size());
        if (place.front() == '@') {
            address.sun_path[0] = '\0';
        }
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + place.size());
        EXPECT_EQ(::bind(m_fd, reinterpret_cast<const sockaddr*>(&address), size), 0);
        ::setenv("NOTIFY_SOCKET", place.c_str(), 1);
    }
    ~Manager() {
        ::unsetenv("NOTIFY_SOCKET");
        ::close(m_fd);
    }

    std::string received() const {
        std::array<char, 256> text{};
        const auto size = ::recv(m_fd, text.data(), text.size(), MSG_DONTWAIT);
        return size < 0 ? "nothing" : std::string(text.data(), static_cast<std::size_t>(size));
    }

  private:
    int m_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

TEST(ServiceManager, ReceivesNotificationsAtAPathAndAtAnAbstractName) {
    const vlmTest::TemporaryFolder folder;
    for (const std::string& place :
         {folder.file("notify"), "@vlmmaster-test-" + std::to_string(::getpid())}) {
        const Manager manager(place);
        EXPECT_GT(notifyServiceManager("READY=1\nSTATUS=Running"), 0) << place;
        EXPECT_EQ(manager.received(), "READY=1\nSTATUS=Running") << place;
    }
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
