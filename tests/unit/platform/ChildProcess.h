#pragma once
/// A program that a test runs and watches.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Eventually.h"

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

class ChildProcess {
  public:
    /// Starts the program with this environment added to the test's own. `standardOutput` and
    /// `standardError` are descriptors; -1 leaves the test's own.
    ChildProcess(const std::vector<std::string>& command,
                 const std::vector<std::pair<std::string, std::string>>& environment = {},
                 int standardOutput = -1, int standardError = -1) {
        std::vector<std::string> variables;
        for (char** at = environ; *at != nullptr; ++at) {
            const std::string variable = *at;
            bool replaced = false;
            for (const auto& [name, value] : environment) {
                replaced = replaced || variable.rfind(name + "=", 0) == 0;
            }
            if (!replaced) {
                variables.push_back(variable);
            }
        }
        for (const auto& [name, value] : environment) {
            variables.push_back(name + "=" + value);
        }
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        if (standardOutput >= 0) {
            ::posix_spawn_file_actions_adddup2(&actions, standardOutput, STDOUT_FILENO);
        }
        if (standardError >= 0) {
            ::posix_spawn_file_actions_adddup2(&actions, standardError, STDERR_FILENO);
        }
        const int failed = ::posix_spawnp(&m_pid, command.front().c_str(), &actions, nullptr,
                                          pointers(command).data(), pointers(variables).data());
        ::posix_spawn_file_actions_destroy(&actions);
        if (failed != 0) {
            m_pid = -1;
            throw std::runtime_error("cannot start " + command.front());
        }
    }
    ~ChildProcess() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    void send(int signal) const { ::kill(m_pid, signal); }

    /// The exit status; -1 when the program ended by a signal, -2 when it did not end in time.
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
    static std::vector<char*> pointers(const std::vector<std::string>& texts) {
        std::vector<char*> all;
        for (const std::string& text : texts) {
            all.push_back(const_cast<char*>(text.c_str()));
        }
        all.push_back(nullptr);
        return all;
    }

    pid_t m_pid = -1;
};

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

}  // namespace vlmTest
