#pragma once
/// A program that a test runs and watches.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/TemporaryFolder.h"

namespace vlmTest {

inline std::string readFile(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

inline std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t from = 0; from < text.size();) {
        const auto end = std::min(text.find('\n', from), text.size());
        lines.push_back(text.substr(from, end - from));
        from = end + 1;
    }
    return lines;
}

/// An open file that closes itself.
class Descriptor {
  public:
    explicit Descriptor(int value) : m_value(value) {}
    ~Descriptor() { close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    operator int() const { return m_value; }
    void close() {
        if (m_value >= 0) {
            ::close(m_value);
        }
        m_value = -1;
    }

  private:
    int m_value;
};

inline int openForWriting(const std::string& path) {
    return ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
}

class ChildProcess {
  public:
    /// Starts the program with these variables ("NAME=value") in addition to the test's environment.
    /// `standardOutput` and `standardError` are descriptors; -1 keeps the test's own.
    ChildProcess(std::vector<std::string> command, const std::vector<std::string>& environment = {},
                 int standardOutput = -1, int standardError = -1) {
        command.insert(command.begin(), environment.begin(), environment.end());
        command.insert(command.begin(), "env");
        std::vector<char*> words;
        for (std::string& word : command) {
            words.push_back(word.data());
        }
        words.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        if (standardOutput >= 0) {
            ::posix_spawn_file_actions_adddup2(&actions, standardOutput, STDOUT_FILENO);
        }
        if (standardError >= 0) {
            ::posix_spawn_file_actions_adddup2(&actions, standardError, STDERR_FILENO);
        }
        const int failed = ::posix_spawnp(&m_pid, words.front(), &actions, nullptr, words.data(), environ);
        ::posix_spawn_file_actions_destroy(&actions);
        if (failed != 0) {
            m_pid = -1;
            throw std::runtime_error("no process can be started");
        }
    }
    /// One that has been started.
    explicit ChildProcess(pid_t pid) : m_pid(pid) {}
    ~ChildProcess() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// The exit status; -1 after a signal, -2 when the program did not end in time.
    int wait() {
        int status = 0;
        if (!eventually([&] { return ::waitpid(m_pid, &status, WNOHANG) == m_pid; }, [] {},
                        std::chrono::seconds(60))) {
            return -2;
        }
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    pid_t m_pid = -1;
};

/// The result of a program that has ended.
struct Outcome {
    int status = 0;
    std::string out;
    std::string err;
};

/// Runs the program with its standard output at the given descriptor, or else in a file.
inline Outcome runToItsEnd(const std::vector<std::string>& command,
                           const std::vector<std::string>& environment = {}, int standardOutput = -1) {
    const TemporaryFolder folder;
    const Descriptor out(openForWriting(folder.file("out")));
    const Descriptor err(openForWriting(folder.file("err")));
    const int status =
        ChildProcess(command, environment, standardOutput < 0 ? int{out} : standardOutput, err).wait();
    return {status, readFile(folder.file("out")), readFile(folder.file("err"))};
}

/// Runs `body` and exits, in a copy of this process, in which no other thread may run.
template <typename Body>
Outcome inProcessOfItsOwn(Body body, int standardOutput = -1) {
    const TemporaryFolder folder;
    const Descriptor out(openForWriting(folder.file("out")));
    const Descriptor err(openForWriting(folder.file("err")));
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(standardOutput < 0 ? int{out} : standardOutput, STDOUT_FILENO);
        ::dup2(err, STDERR_FILENO);
        body();
        std::exit(0);
    }
    return {ChildProcess(child).wait(), readFile(folder.file("out")), readFile(folder.file("err"))};
}

}  // namespace vlmTest
