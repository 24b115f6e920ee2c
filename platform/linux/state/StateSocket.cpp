#include "state/StateSocket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace ara::stm {

namespace {

constexpr std::size_t kLongestAnswer = 16u << 20;

}  // namespace

StateSocket::~StateSocket() {
    close();
}

void StateSocket::close() {
    if (m_socket >= 0) {
        ::close(m_socket);
        m_socket = -1;
    }
    m_in.clear();
}

bool StateSocket::connect(const std::string& path, std::string& error) {
    close();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        error = "the socket's path is empty or too long: " + path;
        return false;
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    m_socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_socket >= 0 &&
        ::connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        return true;
    }
    const int reason = errno;
    close();
    error = "no process answers at " + path + ": " + std::strerror(reason);
    if (reason == ENOENT || reason == ECONNREFUSED) {
        error += ". Is vlmmaster running, as this user and with this VLM_MACHINE_MANIFEST?";
    } else if (reason == EACCES || reason == EPERM) {
        error += ". Only the user that vlmmaster runs as, and root, may ask.";
    }
    return false;
}

bool StateSocket::ask(const kyo::Json::Value& request, kyo::Json::Value& answer, std::string& error,
                      std::chrono::milliseconds limit) {
    const auto fail = [&](std::string reason) {
        error = std::move(reason);
        close();
        return false;
    };
    const std::string text = kyo::Json::FastWriter().write(request) + "\n";
    for (std::size_t done = 0; done < text.size();) {
        const auto put = ::send(m_socket, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (put < 0 && errno != EINTR) {
            return fail(std::string("the request could not be sent: ") + std::strerror(errno));
        }
        done += static_cast<std::size_t>(std::max<std::ptrdiff_t>(put, 0));
    }
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::size_t end = std::string::npos;
    while ((end = m_in.find('\n')) == std::string::npos) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd wait{m_socket, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&wait, 1, static_cast<int>(left.count())) == 0) {
            return fail("no answer came in time");
        }
        char bytes[16384];
        const auto got = ::recv(m_socket, bytes, sizeof bytes, MSG_DONTWAIT);
        if (got == 0) {
            return fail(
                "the connection was closed before the answer: the request is refused, or vlmmaster ended");
        }
        if (got < 0 && errno != EAGAIN && errno != EINTR) {
            return fail(std::string("the answer could not be read: ") + std::strerror(errno));
        }
        m_in.append(bytes, static_cast<std::size_t>(std::max<std::ptrdiff_t>(got, 0)));
        if (m_in.size() > kLongestAnswer) {
            return fail("the answer is too long");
        }
    }
    kyo::Json::Reader reader;
    if (!reader.parse(m_in.substr(0, end), answer, false) || !answer.isObject()) {
        return fail("the answer is no JSON object");
    }
    m_in.erase(0, end + 1);
    const kyo::Json::Value& refused = static_cast<const kyo::Json::Value&>(answer)["error"];
    if (!refused.isNull()) {
        return fail(refused.isString() ? refused.asString() : kyo::Json::FastWriter().write(refused));
    }
    return true;
}

}  // namespace ara::stm
