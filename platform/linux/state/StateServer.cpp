#include "state/StateServer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>
#include <vector>

#include "kyo/SignalsBlocked.h"
#include "kyo/Status.h"
#include "log/PlatformLog.h"

namespace ara::stm {

namespace {

/// A client with this many unread bytes is not served until it reads them.
constexpr std::size_t kUnreadLimit = 64u << 10;
constexpr std::size_t kLongestState = 128;

[[noreturn]] void fail(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        fail(ENAMETOOLONG, path);
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

/// True when a process serves the socket, that is, accepts a connection.
bool isServed(const sockaddr_un& address) {
    const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (probe < 0) {
        return false;
    }
    const bool served = ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
                        errno == EAGAIN;  // its backlog is full
    ::close(probe);
    return served;
}

}  // namespace

StateServer::StateServer(std::string path, StateHandler onState, const StateServerLimits& limits)
    : m_path(std::move(path)), m_onState(std::move(onState)), m_limits(limits) {
    try {
        prepareFolder();
        listen();
        const kyo::SignalsBlocked whileItStarts;
        m_thread = std::thread([this] { run(); });
    } catch (...) {
        closeAll();
        throw;
    }
}

StateServer::~StateServer() {
    m_ending.store(true);
    m_wake.wake();
    m_thread.join();
    closeAll();
}

void StateServer::closeAll() {
    for (auto& [id, client] : m_clients) {
        ::close(client.socket);
    }
    m_clients.clear();
    if (m_listener >= 0) {
        ::unlink(m_path.c_str());
        ::close(m_listener);
    }
    if (m_lock >= 0) {
        ::close(m_lock);
    }
}

/// Creates a missing folder. Refuses one in which other users could create a socket.
void StateServer::prepareFolder() const {
    const auto slash = m_path.rfind('/');
    if (slash == std::string::npos || slash == 0) {
        return;
    }
    const std::string folder = m_path.substr(0, slash);
    if (::mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        fail(errno, folder);
    }
    struct stat info {};
    if (::stat(folder.c_str(), &info) != 0) {
        fail(errno, folder);
    }
    if (!S_ISDIR(info.st_mode)) {
        fail(ENOTDIR, folder);
    }
    const uid_t self = ::geteuid();
    const bool othersOwn = self != 0 && info.st_uid != self && info.st_uid != 0;
    const bool othersWrite = (info.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (info.st_mode & S_ISVTX) == 0;
    if (othersOwn || othersWrite) {
        fail(EPERM, folder + " belongs to, or can be written by, others");
    }
}

void StateServer::listen() {
    const sockaddr_un address = addressOf(m_path);
    // The lock shows whether the socket's process is alive, even when two processes start at the same moment.
    const std::string lockPath = m_path + ".lock";
    m_lock = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    if (m_lock < 0) {
        fail(errno, lockPath);
    }
    if (::flock(m_lock, LOCK_EX | LOCK_NB) != 0) {
        fail(errno == EWOULDBLOCK ? EADDRINUSE : errno, m_path);
    }
    struct stat info {};
    if (::lstat(m_path.c_str(), &info) == 0) {
        if (!S_ISSOCK(info.st_mode)) {
            fail(EEXIST, m_path + " is no socket");
        }
        if (isServed(address)) {
            fail(EADDRINUSE, m_path);
        }
        ::unlink(m_path.c_str());
    }
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listener < 0) {
        fail(errno, "socket");
    }
    // Before bind(), so that the socket never has wider permissions.
    const bool good = ::fchmod(listener, S_IRUSR | S_IWUSR) == 0 &&
                      ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    if (!good) {
        const int error = errno;
        ::close(listener);
        fail(error, m_path);
    }
    m_listener = listener;
    if (::listen(listener, static_cast<int>(m_limits.clients)) != 0) {
        fail(errno, m_path);
    }
}

void StateServer::run() {
    ::pthread_setname_np(::pthread_self(), "state");
    std::vector<pollfd> wait;
    std::vector<std::uint64_t> ids;
    while (!m_ending.load()) {
        const auto now = Clock::now();
        const auto next =
            std::min(sweep(now), m_acceptAfter > now ? m_acceptAfter : Clock::time_point::max());
        wait.assign(
            {pollfd{m_wake.get(), POLLIN, 0}, pollfd{m_acceptAfter > now ? -1 : m_listener, POLLIN, 0}});
        ids.clear();
        {
            const std::lock_guard<std::mutex> lock(m_guard);
            for (const auto& [id, client] : m_clients) {
                const bool listens = !client.ended && client.out.size() < kUnreadLimit;
                wait.push_back(
                    {client.socket,
                     static_cast<short>((listens ? POLLIN : 0) | (client.out.empty() ? 0 : POLLOUT)), 0});
                ids.push_back(id);
            }
        }
        int limit = -1;
        if (next != Clock::time_point::max()) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
            limit = static_cast<int>(std::clamp<std::int64_t>(left, 0, 3'600'000));
        }
        if (::poll(wait.data(), wait.size(), limit) < 0) {
            continue;
        }
        if (wait[0].revents != 0) {
            m_wake.reset();
        }
        for (std::size_t i = 0; i < ids.size() && !m_ending.load(); ++i) {
            const short what = wait[i + 2].revents;
            if ((what & (POLLOUT | POLLERR | POLLNVAL | POLLHUP)) != 0) {
                const std::lock_guard<std::mutex> lock(m_guard);
                Client& client = m_clients.at(ids[i]);
                client.broken = client.broken || (what & (POLLERR | POLLNVAL)) != 0;
                // POLLHUP means that both directions are closed: nobody reads an answer.
                client.broken = client.broken || ((what & POLLHUP) != 0 && (what & POLLIN) == 0);
                send(client);
            }
            if ((what & POLLIN) != 0) {
                receive(ids[i]);
            }
            handleLines(ids[i]);  // includes lines that waited until the client read
        }
        if (wait[1].revents != 0) {
            accept();
        }
    }
}

/// Closes clients that are done, broken or silent. Returns the time of the next sweep.
StateServer::Clock::time_point StateServer::sweep(Clock::time_point now) {
    const std::lock_guard<std::mutex> lock(m_guard);
    auto next = Clock::time_point::max();
    for (auto request = m_requests.begin(); request != m_requests.end();) {
        if (request->second.until > now) {
            next = std::min(next, request->second.until);
            ++request;
            continue;
        }
        if (const auto client = m_clients.find(request->second.client); client != m_clients.end()) {
            kyo::Json::Value document(kyo::Json::objectValue);
            document["requestId"] = request->first;
            document["state"] = request->second.state;
            document["error"] = "the component did not confirm in time";
            append(client->second, document);
        }
        request = m_requests.erase(request);
    }
    for (auto entry = m_clients.begin(); entry != m_clients.end();) {
        Client& client = entry->second;
        const bool asked = hasRequest(entry->first);
        const bool done = client.ended && client.out.empty() && !asked;
        const bool silent = !asked && client.lastMoved + m_limits.idle <= now;
        if (client.broken || done || silent) {
            ::close(client.socket);
            entry = m_clients.erase(entry);
            continue;
        }
        if (!asked) {
            next = std::min(next, client.lastMoved + m_limits.idle);
        }
        ++entry;
    }
    return next;
}

bool StateServer::hasRequest(std::uint64_t client) const {
    return std::any_of(m_requests.begin(), m_requests.end(),
                       [client](const auto& request) { return request.second.client == client; });
}

/// Closes the client that has been silent longest, if the number of clients has reached the limit.
bool StateServer::makeRoom() {
    if (m_clients.size() < m_limits.clients) {
        return true;
    }
    auto oldest = m_clients.end();
    for (auto entry = m_clients.begin(); entry != m_clients.end(); ++entry) {
        if (!hasRequest(entry->first) &&
            (oldest == m_clients.end() || entry->second.lastMoved < oldest->second.lastMoved)) {
            oldest = entry;
        }
    }
    if (oldest == m_clients.end()) {
        return false;
    }
    ::close(oldest->second.socket);
    m_clients.erase(oldest);
    return true;
}

void StateServer::accept() {
    static kyo::Counter& refused = kyo::Status::counter("state.refused");
    const int socket = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (socket < 0) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
            m_acceptAfter = Clock::now() + std::chrono::seconds(1);
        }
        return;
    }
    ucred peer{};
    socklen_t size = sizeof peer;
    const bool known = ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0;
    if (!known || (peer.uid != ::geteuid() && peer.uid != 0)) {
        ::close(socket);
        refused.add();
        KYO_LOG(5, "A request of user " << peer.uid << " on the state socket was refused");
        return;
    }
    const std::lock_guard<std::mutex> lock(m_guard);
    if (!makeRoom()) {
        ::close(socket);
        refused.add();
        return;
    }
    Client& client = m_clients[m_nextClient++];
    client.socket = socket;
    client.lastMoved = Clock::now();
}

void StateServer::receive(std::uint64_t id) {
    const std::lock_guard<std::mutex> lock(m_guard);
    Client& client = m_clients.at(id);
    char bytes[4096];
    const auto got = ::recv(client.socket, bytes, sizeof bytes, MSG_DONTWAIT);
    if (got > 0) {
        client.in.append(bytes, static_cast<std::size_t>(got));
        client.lastMoved = Clock::now();
    } else if (got == 0) {
        client.ended = true;  // it may still read answers
    } else if (errno != EAGAIN && errno != EINTR) {
        client.broken = true;
    }
}

void StateServer::handleLines(std::uint64_t id) {
    for (;;) {
        std::string line;
        bool tooLong = false;
        {
            const std::lock_guard<std::mutex> lock(m_guard);
            Client& client = m_clients.at(id);
            if (client.broken || client.out.size() >= kUnreadLimit) {
                return;
            }
            const auto end = client.in.find('\n');
            if (end != std::string::npos) {
                line = client.in.substr(0, end);
                client.in.erase(0, end + 1);
                tooLong = line.size() > m_limits.requestBytes;
            } else if (client.in.size() > m_limits.requestBytes) {
                tooLong = true;
            } else if (client.ended && !client.in.empty()) {
                line.swap(client.in);  // a last line without a line end
            } else {
                return;
            }
            if (tooLong) {
                client.in.clear();
                client.ended = true;
            }
        }
        if (tooLong) {
            refuse(id, "the request is longer than " + std::to_string(m_limits.requestBytes) + " bytes");
            return;
        }
        if (line.find_first_not_of(" \t\r") != std::string::npos) {
            handleLine(id, line);
        }
    }
}

void StateServer::handleLine(std::uint64_t id, std::string_view line) {
    kyo::Json::Value document;
    kyo::Json::Reader reader;
    if (!reader.parse(std::string(line), document, false) || !document.isObject()) {
        refuse(id, "the request is no JSON object");
        return;
    }
    const kyo::Json::Value& request = std::as_const(document)["request"];
    const std::string name = request.isString() ? request.asString() : std::string();
    if (name == "status") {
        answer(id, kyo::Status::snapshot());
    } else if (name == "state") {
        requestState(id, document);
    } else {
        refuse(id, "\"request\" must be \"state\" or \"status\"");
    }
}

void StateServer::requestState(std::uint64_t id, const kyo::Json::Value& document) {
    const kyo::Json::Value& member = document["state"];
    if (!member.isString() || member.asString().empty() || member.asString().size() > kLongestState) {
        refuse(id, "\"state\" must be a text of 1 to " + std::to_string(kLongestState) + " bytes");
        return;
    }
    const std::string state = member.asString();
    std::uint32_t requestId = 0;
    {
        const std::lock_guard<std::mutex> lock(m_guard);
        requestId = m_nextRequest++;
        m_requests[requestId] = {id, state, Clock::now() + m_limits.confirmation};
    }
    try {
        m_onState(requestId, state);
    } catch (const std::exception& error) {
        KYO_LOG(3, "The component failed on the requested state " << state << ": " << error.what());
    }
}

StateServer::Confirmation StateServer::confirm(std::uint32_t requestId, const std::string& state,
                                               std::string_view result) {
    kyo::Json::Value document(kyo::Json::objectValue);
    document["requestId"] = requestId;
    document["state"] = state;
    document["result"] = std::string(result);
    {
        const std::lock_guard<std::mutex> lock(m_guard);
        const auto request = m_requests.find(requestId);
        if (request == m_requests.end() || request->second.state != state) {
            return Confirmation::NotAsked;
        }
        const auto client = m_clients.find(request->second.client);
        m_requests.erase(request);
        if (client == m_clients.end()) {
            return Confirmation::RequesterGone;
        }
        append(client->second, document);
        send(client->second);
        if (client->second.broken) {
            return Confirmation::RequesterGone;
        }
    }
    m_wake.wake();  // the thread sends the rest and closes the client when done
    return Confirmation::Sent;
}

void StateServer::append(Client& client, const kyo::Json::Value& document) {
    kyo::Json::appendCompact(client.out, document);
    client.out.push_back('\n');
}

void StateServer::send(Client& client) {
    while (!client.out.empty() && !client.broken) {
        const auto put =
            ::send(client.socket, client.out.data(), client.out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (put > 0) {
            client.out.erase(0, static_cast<std::size_t>(put));
            client.lastMoved = Clock::now();
        } else if (put < 0 && errno == EAGAIN) {
            return;
        } else if (put < 0 && errno != EINTR) {
            client.broken = true;
        }
    }
}

void StateServer::answer(std::uint64_t id, const kyo::Json::Value& document) {
    const std::lock_guard<std::mutex> lock(m_guard);
    Client& client = m_clients.at(id);
    append(client, document);
    send(client);
}

void StateServer::refuse(std::uint64_t id, const std::string& reason) {
    kyo::Json::Value document(kyo::Json::objectValue);
    document["error"] = reason;
    answer(id, document);
}

}  // namespace ara::stm
