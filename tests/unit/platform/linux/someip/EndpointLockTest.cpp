#include "someip/EndpointLock.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace someip;

TEST(EndpointLocks, HaveOneOwnerAndAreFreeOnceItEndsEvenByAKill) {
    const Endpoint endpoint{0x7F000001, static_cast<std::uint16_t>(20000 + ::getpid() % 10000)};
    std::string error;
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const pid_t owner = ::fork();
    ASSERT_GE(owner, 0);
    if (owner == 0) {
        const auto lock = EndpointLock::take(endpoint, error);
        const char taken = lock != nullptr ? 'y' : 'n';
        if (::write(pipe[1], &taken, 1) == 1) {
            ::pause();
        }
        ::_exit(1);
    }
    char taken = 0;
    ASSERT_EQ(::read(pipe[0], &taken, 1), 1);
    EXPECT_EQ(taken, 'y');
    EXPECT_EQ(EndpointLock::take(endpoint, error), nullptr);
    EXPECT_EQ(error,
              "another process of this kind uses " + toText(endpoint) + "; give each an address of its own");
    EXPECT_NE(EndpointLock::take({endpoint.address, std::uint16_t(endpoint.port + 1)}, error), nullptr);
    EXPECT_NE(EndpointLock::take({0x7F000002, endpoint.port}, error), nullptr);
    ::kill(owner, SIGKILL);
    ::waitpid(owner, nullptr, 0);
    auto lock = EndpointLock::take(endpoint, error);
    EXPECT_NE(lock, nullptr) << "nothing stale is left";
    lock.reset();
    EXPECT_NE(EndpointLock::take(endpoint, error), nullptr);
    ::close(pipe[0]);
    ::close(pipe[1]);
}
