#include "backend/web/Server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <httplib.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <semaphore>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace vlmBackend::web {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

constexpr std::size_t kMostConnections = 64;
constexpr std::size_t kMostHeadBytes = 16u << 10;
constexpr std::size_t kMostBodyBytes = 8u << 20;
constexpr seconds kIdle{10};          ///< a connection without a request
constexpr seconds kRequestLimit{20};  ///< from a request's first byte to its last
/// A client that takes nothing. One that takes kSlowest reports room in its buffer only once a
/// sixteenth of it is empty: 25 s of the kernel's usual 6 MiB.
constexpr seconds kWriteLimit{30};
/// Bytes that wait for a client's room; without a limit megabytes do, and nothing is seen of what it takes.
constexpr int kMostUnsent = 64 << 10;
constexpr std::size_t kSlowest = 16u << 10;  ///< bytes a second that a client takes of a long answer
constexpr int kMostRequests = 1000;          ///< of one connection

using SslContext = std::unique_ptr<SSL_CTX, decltype(&::SSL_CTX_free)>;
using SslSession = std::unique_ptr<SSL, decltype(&::SSL_free)>;

std::string sslReason() {
    const unsigned long code = ::ERR_peek_last_error();
    const char* const reason = ::ERR_reason_error_string(code);
    ::ERR_clear_error();
    return reason != nullptr ? reason : "unknown reason";
}

SslContext contextOf(const std::string& certFile, const std::string& keyFile) {
    SslContext context(nullptr, &::SSL_CTX_free);
    if (certFile.empty()) {
        return context;
    }
    context.reset(::SSL_CTX_new(::TLS_server_method()));
    ::SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
    ::SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    if (::SSL_CTX_use_certificate_chain_file(context.get(), certFile.c_str()) != 1) {
        throw std::runtime_error("--http-cert " + certFile + ": " + sslReason());
    }
    if (::SSL_CTX_use_PrivateKey_file(context.get(), keyFile.c_str(), SSL_FILETYPE_PEM) != 1 ||
        ::SSL_CTX_check_private_key(context.get()) != 1) {
        throw std::runtime_error("--http-key " + keyFile + ": " + sslReason());
    }
    return context;
}

/// One connection. Reads no more than it is allowed to, and waits for a client no longer than its deadline.
class Connection : public httplib::Stream {
  public:
    Connection(int socket, SSL_CTX* context) : m_socket(socket), m_ssl(nullptr, &::SSL_free) {
        ::fcntl(socket, F_SETFL, ::fcntl(socket, F_GETFL) | O_NONBLOCK);
        ::setsockopt(socket, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &kMostUnsent, sizeof kMostUnsent);
        if (context != nullptr) {
            m_ssl.reset(::SSL_new(context));
            ::SSL_set_fd(m_ssl.get(), socket);
        }
    }

    ~Connection() override {
        if (m_ssl) {
            ::SSL_shutdown(m_ssl.get());
        }
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool accept() {
        const auto until = Clock::now() + kIdle;
        while (m_ssl) {
            const int done = ::SSL_accept(m_ssl.get());
            if (done == 1) {
                break;
            }
            if (!waitForSsl(done, until)) {
                return false;
            }
        }
        return true;
    }

    enum class Head { Ready, TooLong, Gone };
    /// Waits for a request and reads up to the end of its head, from which it takes what this server does not
    /// offer.
    Head readHead() {
        m_in.erase(0, std::exchange(m_taken, 0));
        auto until = Clock::now() + kIdle;
        bool begun = !m_in.empty();
        for (;;) {
            if (const auto end = m_in.find("\r\n\r\n"); end != std::string::npos) {
                withoutRangesAndBrotli(end);
                m_deadline = until;
                m_allowed = m_in.find("\r\n\r\n") + 4;
                return Head::Ready;
            }
            if (m_in.size() > kMostHeadBytes) {
                return Head::TooLong;
            }
            if (!fill(until)) {
                return Head::Gone;
            }
            if (!std::exchange(begun, true)) {
                until = Clock::now() + kRequestLimit;
            }
        }
    }
    /// Lets the body be read, too.
    void allowBody() { m_allowed += kMostBodyBytes + (kMostBodyBytes >> 3); }

    bool is_readable() const override { return !m_in.empty(); }
    /// Whether the client is still there.
    bool is_writable() const override {
        pollfd handle{m_socket, POLLRDHUP, 0};
        return ::poll(&handle, 1, 0) == 0;
    }
    ssize_t read(char* out, std::size_t size) override {
        if (m_allowed == 0 || (m_in.empty() && !fill(m_deadline))) {
            return 0;
        }
        const std::size_t count = std::min({size, m_in.size() - m_taken, m_allowed});
        std::memcpy(out, m_in.data() + m_taken, count);
        m_allowed -= count;
        m_taken += count;
        if (m_taken == m_in.size()) {
            m_in.clear();
            m_taken = 0;
        }
        return static_cast<ssize_t>(count);
    }
    ssize_t write(const char* data, std::size_t size) override {
        for (std::size_t done = 0; done < size;) {
            const auto began = Clock::now();
            const std::size_t part = std::min<std::size_t>(size - done, 1u << 20);
            const auto put = m_ssl ? ::SSL_write(m_ssl.get(), data + done, static_cast<int>(part))
                                   : ::send(m_socket, data + done, part, MSG_NOSIGNAL);
            if (put > 0) {
                done += static_cast<std::size_t>(put);
                m_written += static_cast<std::size_t>(put);
            } else if (!(m_ssl ? waitForSsl(static_cast<int>(put), began + kWriteLimit)
                               : isBlocked() && wait(POLLOUT, began + kWriteLimit))) {
                return -1;
            }
            m_waited += Clock::now() - began;
            if (m_waited > kRequestLimit + seconds(m_written / kSlowest)) {
                return -1;  // it takes a byte now and then, and holds a thread and a query
            }
        }
        return static_cast<ssize_t>(size);
    }
    void get_remote_ip_and_port(std::string& ip, int& port) const override { name(::getpeername, ip, port); }
    void get_local_ip_and_port(std::string& ip, int& port) const override { name(::getsockname, ip, port); }
    socket_t socket() const override { return m_socket; }

  private:
    static bool isBlocked() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

    template <class Ask>
    void name(Ask ask, std::string& ip, int& port) const {
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        char text[INET6_ADDRSTRLEN] = "";
        auto* const any = reinterpret_cast<sockaddr*>(&address);
        if (ask(m_socket, any, &length) != 0) {
            return;
        }
        if (address.ss_family == AF_INET6) {
            const auto* six = reinterpret_cast<const sockaddr_in6*>(&address);
            ::inet_ntop(AF_INET6, &six->sin6_addr, text, sizeof text);
            port = ntohs(six->sin6_port);
        } else {
            const auto* four = reinterpret_cast<const sockaddr_in*>(&address);
            ::inet_ntop(AF_INET, &four->sin_addr, text, sizeof text);
            port = ntohs(four->sin_port);
        }
        ip = text;
    }

    bool wait(short events, Clock::time_point until) const {
        for (;;) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
            pollfd handle{m_socket, events, 0};
            const int ready = left > 0 ? ::poll(&handle, 1, static_cast<int>(left)) : 0;
            if (ready >= 0 || errno != EINTR) {
                return ready > 0;
            }
        }
    }
    bool waitForSsl(int result, Clock::time_point until) {
        switch (::SSL_get_error(m_ssl.get(), result)) {
            case SSL_ERROR_WANT_READ:
                return wait(POLLIN, until);
            case SSL_ERROR_WANT_WRITE:
                return wait(POLLOUT, until);
            default:
                ::ERR_clear_error();
                return false;
        }
    }
    /// Reads what has come, at least a byte.
    bool fill(Clock::time_point until) {
        char bytes[16384];
        for (;;) {
            const auto got = m_ssl ? ::SSL_read(m_ssl.get(), bytes, sizeof bytes)
                                   : ::recv(m_socket, bytes, sizeof bytes, 0);
            if (got > 0) {
                m_in.append(bytes, static_cast<std::size_t>(got));
                return true;
            }
            if (got == 0 && !m_ssl) {
                return false;
            }
            if (!(m_ssl ? waitForSsl(static_cast<int>(got), until) : isBlocked() && wait(POLLIN, until))) {
                return false;
            }
        }
    }
    /// Nothing is sent in parts; the library would parse the request for them at any length. And nothing is
    /// sent as Brotli: the library compresses with its highest quality, a second for 150 kB, and prefers it
    /// to gzip.
    void withoutRangesAndBrotli(std::size_t end) {
        constexpr std::string_view range = "range:";
        constexpr std::string_view encodings = "accept-encoding:";
        const auto isNamed = [this](std::size_t begin, std::string_view name) {
            return ::strncasecmp(m_in.data() + begin, name.data(), name.size()) == 0;
        };
        for (auto line = m_in.find("\r\n"); line < end; line = m_in.find("\r\n", line + 2)) {
            if (isNamed(line + 2, range)) {
                m_in.replace(line + 2, range.size(), "x-rng:");
            } else if (isNamed(line + 2, encodings)) {
                const auto last = m_in.find("\r\n", line + 2);
                for (auto at = m_in.find("br", line + 2 + encodings.size()); at < last;
                     at = m_in.find("br", at)) {
                    m_in.replace(at, 2, "--");
                }
            }
        }
    }

    const int m_socket;
    SslSession m_ssl;
    std::string m_in;
    std::size_t m_taken = 0;    ///< of m_in
    std::size_t m_allowed = 0;  ///< bytes that may still be read of this request
    Clock::time_point m_deadline;
    std::size_t m_written = 0;
    Clock::duration m_waited{0};  ///< for the client to take what is written
};

/// No more connections than threads; further ones wait in the kernel.
class Workers : public httplib::TaskQueue {
    // Nothing, or in newer versions of the library whether the work is accepted.
    using Accepted = decltype(std::declval<httplib::ThreadPool&>().enqueue({}));

  public:
    Accepted enqueue(std::function<void()> work) override {
        m_free.acquire();
        return m_threads.enqueue([this, run = std::move(work)] {
            run();
            m_free.release();
        });
    }
    void shutdown() override { m_threads.shutdown(); }

  private:
    std::counting_semaphore<kMostConnections> m_free{kMostConnections};
    httplib::ThreadPool m_threads{kMostConnections};
};

std::string policy(const std::string& imageSource) {
    return "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data: blob:" +
           (imageSource.empty() ? "" : " " + imageSource) +
           "; font-src 'self'; connect-src 'self'; manifest-src 'self'; base-uri 'none'; form-action 'none'; "
           "frame-ancestors 'none'";
}

}  // namespace

bool ListenAddress::isLoopback() const {
    return host.starts_with("127.") || host == "::1";
}

std::string ListenAddress::url(bool tls) const {
    const std::string name = host.find(':') != std::string::npos ? "[" + host + "]" : host;
    return (tls ? "https://" : "http://") + name + ":" + std::to_string(port) + "/";
}

ListenAddress readAddress(const std::string& text) {
    ListenAddress out;
    const auto colon = text.rfind(':');
    std::string host = text.substr(0, colon);
    const bool six = host.size() > 2 && host.front() == '[' && host.back() == ']';
    out.host = six ? host.substr(1, host.size() - 2) : host;
    in6_addr parsed{};
    const char* const end = text.data() + text.size();
    const auto digits = colon == std::string::npos ? text.size() : colon + 1;
    const auto read = std::from_chars(text.data() + digits, end, out.port);
    if (digits == text.size() || read.ec != std::errc{} || read.ptr != end ||
        ::inet_pton(six ? AF_INET6 : AF_INET, out.host.c_str(), &parsed) != 1) {
        throw std::invalid_argument(
            "--listen " + text +
            ": an IP address and a port are expected, such as 127.0.0.1:8642 or [::1]:8642");
    }
    return out;
}

class Server::Listener : public httplib::Server {
  public:
    Listener(Settings settings, const Router& router, Access& access, Metrics& metrics)
        : m_settings(std::move(settings)),
          m_context(contextOf(m_settings.certFile, m_settings.keyFile)),
          m_policy(policy(m_settings.imageSource)),
          m_router(router),
          m_access(access),
          m_metrics(metrics) {
        new_task_queue = [] { return new Workers; };
        set_payload_max_length(kMostBodyBytes);
        set_keep_alive_timeout(kIdle.count());
        set_keep_alive_max_count(kMostRequests);
        // Without SO_REUSEPORT, which would let a second backend take half of the connections.
        set_socket_options([](socket_t socket) {
            const int yes = 1;
            ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        });
        set_tcp_nodelay(true);
        // All paths are "/" here: the library would match them with a regular expression.
        const auto serve = [this](const httplib::Request& request, httplib::Response& response) {
            answer(request, response);
        };
        Get("/", serve).Post("/", serve).Put("/", serve).Patch("/", serve).Delete("/", serve);
        set_error_handler([this](const httplib::Request&, httplib::Response& response) {
            if (response.body.empty()) {  // refused by the library
                finish(Response::error(response.status, textOf(response.status)), response);
                ++m_metrics.answers.at(static_cast<std::size_t>(std::clamp(response.status, 0, 599)));
            }
        });
    }

    void bind() {
        auto& address = m_settings.address;
        if (address.port == 0) {
            const int port = bind_to_any_port(address.host);
            address.port = static_cast<std::uint16_t>(std::max(port, 0));
        } else {
            errno = 0;
            if (!bind_to_port(address.host, address.port)) {
                throw std::system_error(errno == 0 ? EADDRNOTAVAIL : errno, std::generic_category(),
                                        address.host + ":" + std::to_string(address.port));
            }
        }
        if (address.port == 0) {
            throw std::system_error(EADDRNOTAVAIL, std::generic_category(), address.host);
        }
    }
    void breakConnections() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ending = true;
        for (const int socket : m_open) {
            ::shutdown(socket, SHUT_RDWR);
        }
    }
    const ListenAddress& address() const { return m_settings.address; }

  private:
    static std::string textOf(int status) {
        switch (status) {
            case 413:
                return "the body is larger than " + std::to_string(kMostBodyBytes) + " bytes";
            case 414:
                return "the address is too long";
            case 404:
                return "this method is not served";
            default:
                return "the request cannot be read";
        }
    }

    bool process_and_close_socket(socket_t socket) override {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_open.insert(socket);
            if (m_ending) {
                ::shutdown(socket, SHUT_RDWR);
            }
        }
        ++m_metrics.connections;
        serve(socket);
        --m_metrics.connections;
        const std::lock_guard<std::mutex> lock(
            m_mutex);  // a number that is closed may be in use again at once
        m_open.erase(socket);
        ::close(socket);
        return true;
    }

    /// Newer versions of the library do not ask the stream for the addresses.
    template <typename Stream>
    bool process(Stream& stream, bool isLast, bool& isClosed,
                 const std::function<void(httplib::Request&)>& prepare) {
        if constexpr (requires { process_request(stream, isLast, isClosed, prepare); }) {
            return process_request(stream, isLast, isClosed, prepare);
        } else {
            std::string remote;
            std::string local;
            int remotePort = 0;
            int localPort = 0;
            stream.get_remote_ip_and_port(remote, remotePort);
            stream.get_local_ip_and_port(local, localPort);
            return process_request(stream, remote, remotePort, local, localPort, isLast, isClosed, prepare);
        }
    }

    void serve(socket_t socket) {
        Connection connection(socket, m_context.get());
        if (!connection.accept()) {
            return;
        }
        bool closed = false;
        for (int count = 1; !closed && count <= kMostRequests; ++count) {
            switch (connection.readHead()) {
                case Connection::Head::Gone:
                    return;
                case Connection::Head::TooLong: {
                    ++m_metrics.answers[431];
                    connection.httplib::Stream::write(
                        std::string("HTTP/1.1 431 Request Header Fields Too Large\r\nContent-Length: 0\r\n"
                                    "Connection: close\r\n\r\n"));
                    return;
                }
                case Connection::Head::Ready:
                    break;
            }
            const bool last = count == kMostRequests;
            answered = false;
            bool unread = false;
            const bool good = process(connection, last, closed, [&](httplib::Request& request) {
                // The library would read what is too long, and discard it.
                const std::string length = request.get_header_value("Content-Length");
                if (std::strtoull(length.c_str(), nullptr, 10) <= kMostBodyBytes) {
                    connection.allowBody();
                }
                unread = (request.method == "GET" || request.method == "HEAD") &&
                         (request.has_header("Content-Length") || request.has_header("Transfer-Encoding"));
                request.path = "/";
                // The body is taken as it came: neither unpacked nor split into parts.
                request.headers.erase("Content-Encoding");
                if (const auto type = request.headers.find("Content-Type");
                    type != request.headers.end() && !type->second.starts_with("application/json")) {
                    type->second = "application/octet-stream";
                }
            });
            if (!good || !answered || unread) {
                return;  // what is left of the body is no request
            }
        }
    }

    void answer(const httplib::Request& from, httplib::Response& to) {
        answered = true;
        Request request;
        request.method = from.method == "HEAD" ? "GET" : from.method;
        request.contentType = from.get_header_value("Content-Type");
        request.body = from.body;
        Response response;
        if (auto refused = m_access.admit(
                {from.remote_addr, from.get_header_value("Host"), from.get_header_value("Authorization")},
                request)) {
            response = std::move(*refused);
        } else {
            response = m_router.handle(from.target, std::move(request));
        }
        for (const auto& [name, value] : response.headers) {
            if (name == "ETag" && from.get_header_value("If-None-Match") == value) {
                response.status = 304;
                response.body.clear();
            }
        }
        ++m_metrics.answers.at(static_cast<std::size_t>(std::clamp(response.status, 0, 599)));
        finish(std::move(response), to);
    }

    void finish(Response from, httplib::Response& to) const {
        to.status = from.status;
        to.set_header("Content-Security-Policy", m_policy);
        to.set_header("X-Content-Type-Options", "nosniff");
        to.set_header("X-Frame-Options", "DENY");
        to.set_header("Referrer-Policy", "strict-origin-when-cross-origin");
        to.set_header("Cross-Origin-Opener-Policy", "same-origin");
        to.set_header("Cross-Origin-Resource-Policy", "same-origin");
        if (m_context) {
            to.set_header("Strict-Transport-Security", "max-age=31536000");
        }
        if (from.status == 401) {
            to.set_header("WWW-Authenticate", "Basic realm=\"vlm-backend\", charset=\"UTF-8\"");
        }
        bool cached = false;
        for (const auto& [name, value] : from.headers) {
            to.set_header(name, value);
            cached = cached || name == "Cache-Control";
        }
        if (!cached) {
            to.set_header("Cache-Control", "no-store");
        }
        if (!from.stream) {
            if (from.status != 304) {
                to.set_content(from.body, from.type);
            }
            return;
        }
        to.set_chunked_content_provider(
            from.type, [stream = std::move(from.stream)](std::size_t, httplib::DataSink& sink) {
                try {
                    stream([&sink](std::string_view part) {
                        return part.empty() ? sink.is_writable() : sink.write(part.data(), part.size());
                    });
                } catch (const std::exception&) {
                    return false;  // the client sees that the end is missing
                }
                sink.done();
                return true;
            });
    }

    /// Whether the library has read the whole request of this thread's connection and passed it on.
    static thread_local bool answered;

    Settings m_settings;
    const SslContext m_context;
    const std::string m_policy;
    const Router& m_router;
    Access& m_access;
    Metrics& m_metrics;
    std::mutex m_mutex;
    std::set<int> m_open;   ///< sockets; guarded by m_mutex
    bool m_ending = false;  ///< guarded by m_mutex
};

thread_local bool Server::Listener::answered = false;

Server::Server(Settings settings, const Router& router, Access& access, Metrics& metrics)
    : m_listener(std::make_unique<Listener>(std::move(settings), router, access, metrics)) {
    m_listener->bind();
    m_thread = std::thread([this] { m_listener->listen_after_bind(); });
    const auto until = Clock::now() + seconds(10);
    while (!m_listener->is_running() && Clock::now() < until) {  // stop() before that has no effect
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

Server::~Server() {
    m_listener->breakConnections();
    m_listener->stop();
    m_thread.join();
}

const ListenAddress& Server::address() const {
    return m_listener->address();
}

}  // namespace vlmBackend::web
