#include "backend/web/Access.h"

#include <argon2.h>
#include <arpa/inet.h>
#include <botan/base64.h>
#include <botan/hash.h>
#include <botan/system_rng.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace vlmBackend::web {

namespace {

constexpr std::size_t kMostAddresses = 4096;
constexpr std::size_t kMostVerified = 256;
constexpr std::chrono::minutes kVerifiedFor{10};
constexpr std::size_t kMostName = 64;
constexpr std::size_t kLeastPassword = 8;
constexpr std::size_t kMostPassword = 1024;

// Argon2id as OWASP recommends it at least: 19 MiB, two passes.
constexpr std::uint32_t kPasses = 2;
constexpr std::uint32_t kMemoryKib = 19 * 1024;
constexpr std::size_t kSaltBytes = 16;
constexpr std::size_t kHashBytes = 32;

/// The names under which a browser on this machine asks. A page of another site whose name leads here has
/// another one.
bool isThisMachine(std::string_view host) {
    const auto bracket = host.find(']');
    const auto colon = host.find(':', bracket == std::string_view::npos ? 0 : bracket);
    const std::string name(host.substr(0, colon));
    in_addr address{};
    return name == "localhost" || name == "[::1]" ||
           (name.starts_with("127.") && ::inet_pton(AF_INET, name.c_str(), &address) == 1);
}

std::string sha256(const std::string& text) {
    const auto hash = Botan::HashFunction::create_or_throw("SHA-256");
    hash->update(text);
    const auto digest = hash->final();
    return {digest.begin(), digest.end()};
}

/// Takes the same time whatever the texts are.
bool isSame(const std::string& a, const std::string& b) {
    const std::string left = sha256(a);
    const std::string right = sha256(b);
    unsigned char difference = 0;
    for (std::size_t i = 0; i < left.size(); ++i) {
        difference |= static_cast<unsigned char>(left[i] ^ right[i]);
    }
    return difference == 0;
}

std::optional<std::string> decodeBase64(const std::string& text) {
    try {
        const auto bytes = Botan::base64_decode(text);
        return std::string(bytes.begin(), bytes.end());
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

Role roleOf(const std::string& name) {
    return name == "configure" ? Role::Configure : name == "view" ? Role::View : Role::None;
}

bool isName(const std::string& name) {
    return !name.empty() && name.size() <= kMostName && name != "token" && name.front() != '#' &&
           std::all_of(name.begin(), name.end(),
                       [](unsigned char c) { return c > 0x20 && c != ':' && c != 0x7F; });
}

Response unauthorized(const std::string& text) {
    return Response::error(401, text);
}

}  // namespace

Access::Access(AccessSettings settings) : m_settings(std::move(settings)) {
    if (!m_settings.users.empty()) {
        readUsers();
    }
}

/// Reads the file again when it has changed.
void Access::readUsers() {
    std::error_code missing;
    const auto changed = std::filesystem::last_write_time(m_settings.users, missing);
    if (!missing && !m_users.empty() && changed == m_usersChanged) {
        return;
    }
    std::ifstream file(m_settings.users);
    if (missing || !file) {
        throw std::runtime_error("--users " + m_settings.users.string() +
                                 ": cannot be read; --add-user creates it");
    }
    std::map<std::string, User> users;
    std::size_t number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        if (line.empty() || line.front() == '#') {
            continue;
        }
        const auto first = std::min(line.find(':'), line.size());
        const auto second = std::min(line.find(':', std::min(first + 1, line.size())), line.size());
        const std::string name = line.substr(0, first);
        User user;
        if (second < line.size()) {
            user.role = roleOf(line.substr(first + 1, second - first - 1));
            user.hash = line.substr(second + 1);
        }
        if (!isName(name) || user.role == Role::None || !user.hash.starts_with("$argon2id$")) {
            throw std::runtime_error(
                "--users " + m_settings.users.string() + ":" + std::to_string(number) +
                ": name:view:hash or name:configure:hash is expected, as --add-user writes it");
        }
        users[name] = user;
    }
    m_users = std::move(users);
    m_usersChanged = changed;
    m_verified.clear();
}

std::optional<Response> Access::limit(const std::string& address) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto now = Clock::now();
    if (m_addresses.size() >= kMostAddresses && m_addresses.find(address) == m_addresses.end()) {
        m_addresses.erase(
            std::min_element(m_addresses.begin(), m_addresses.end(),
                             [](const auto& a, const auto& b) { return a.second.seen < b.second.seen; }));
    }
    const auto [at, isNew] = m_addresses.try_emplace(address);
    Address& known = at->second;
    if (!isNew) {
        known.left =
            std::min(kBurst, known.left + kRequestsPerSecond *
                                              std::chrono::duration<double>(now - known.seen).count());
    }
    known.seen = now;
    if (known.failures >= kMostFailures && now - known.firstFailure < kFailureMemory) {
        Response out =
            Response::error(429, "too many failed logins from this address: try again in a minute");
        out.headers.emplace_back("Retry-After", std::to_string(kFailureMemory.count()));
        return out;
    }
    if (known.left < 1) {
        Response out = Response::error(429, "too many requests from this address");
        out.headers.emplace_back("Retry-After", "1");
        return out;
    }
    known.left -= 1;
    return std::nullopt;
}

void Access::countFailure(const std::string& address) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    Address& known = m_addresses[address];
    if (known.failures == 0 || Clock::now() - known.firstFailure >= kFailureMemory) {
        known.failures = 0;
        known.firstFailure = Clock::now();
    }
    ++known.failures;
}

/// "name:password".
bool Access::verify(const std::string& credentials, Request& request) {
    const auto colon = std::min(credentials.find(':'), credentials.size());
    const std::string name = credentials.substr(0, colon);
    const std::string password = credentials.substr(std::min(colon + 1, credentials.size()));
    if (name == "token" && !m_settings.token.empty()) {
        request.role = isSame(password, m_settings.token) ? Role::Configure : Role::None;
    } else if (!m_settings.users.empty() && password.size() <= kMostPassword) {
        const std::lock_guard<std::mutex> lock(m_hashing);
        readUsers();
        const auto user = m_users.find(name);
        if (user == m_users.end()) {
            return false;
        }
        const std::string digest = sha256(credentials + user->second.hash);
        const auto now = Clock::now();
        std::erase_if(m_verified, [now](const auto& one) { return one.second < now; });
        if (m_verified.find(digest) == m_verified.end()) {
            if (::argon2id_verify(user->second.hash.c_str(), password.data(), password.size()) != ARGON2_OK) {
                return false;
            }
            if (m_verified.size() < kMostVerified) {
                m_verified[digest] = now + kVerifiedFor;
            }
        }
        request.role = user->second.role;
    }
    request.user = request.role == Role::None ? "" : name;
    return request.role != Role::None;
}

std::optional<Response> Access::admit(const Caller& caller, Request& request) {
    if (auto refused = limit(caller.address)) {
        return refused;
    }
    if (m_settings.loopback && !isThisMachine(caller.host)) {
        return Response::error(421, "the name \"" + caller.host + "\" is not this machine: ask localhost");
    }
    if (m_settings.isOpen()) {
        request.role = Role::Configure;
        return std::nullopt;
    }
    if (caller.authorization.empty()) {
        return std::nullopt;
    }
    bool good = false;
    try {
        if (caller.authorization.starts_with("Basic ")) {
            const auto credentials = decodeBase64(caller.authorization.substr(6));
            good = credentials && verify(*credentials, request);
        } else if (caller.authorization.starts_with("Bearer ")) {
            good = verify("token:" + caller.authorization.substr(7), request);
        }
    } catch (const std::exception& error) {
        return Response::error(503, error.what());
    }
    if (!good) {
        countFailure(caller.address);
        return unauthorized("user, password or token are wrong");
    }
    return std::nullopt;
}

void addUser(const std::filesystem::path& file, const std::string& name, const std::string& role,
             const std::string& password) {
    if (!isName(name)) {
        throw std::runtime_error("--add-user " + name + ": up to " + std::to_string(kMostName) +
                                 " characters without spaces and colons are expected, and not \"token\"");
    }
    if (roleOf(role) == Role::None) {
        throw std::runtime_error("--role: view or configure is expected");
    }
    if (password.size() < kLeastPassword || password.size() > kMostPassword) {
        throw std::runtime_error("the password: " + std::to_string(kLeastPassword) + " to " +
                                 std::to_string(kMostPassword) + " bytes are expected");
    }
    std::array<std::uint8_t, kSaltBytes> salt{};
    Botan::system_rng().randomize(salt.data(), salt.size());
    std::array<char, 256> encoded{};
    const int failed =
        ::argon2id_hash_encoded(kPasses, kMemoryKib, 1, password.data(), password.size(), salt.data(),
                                salt.size(), kHashBytes, encoded.data(), encoded.size());
    if (failed != ARGON2_OK) {
        throw std::runtime_error(std::string("the password cannot be hashed: ") +
                                 ::argon2_error_message(failed));
    }
    std::string content;
    std::ifstream before(file);
    for (std::string line; std::getline(before, line);) {
        if (!line.starts_with(name + ":")) {
            content += line + "\n";
        }
    }
    content += name + ":" + role + ":" + encoded.data() + "\n";
    // Nobody ever reads half a file, or one that others may read.
    const std::string made = file.string() + ".new";
    const int out = ::open(made.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR);
    const bool written =
        out >= 0 && ::write(out, content.data(), content.size()) == static_cast<ssize_t>(content.size()) &&
        ::fsync(out) == 0;
    const int reason = errno;
    if (out >= 0) {
        ::close(out);
    }
    if (!written || ::rename(made.c_str(), file.c_str()) != 0) {
        throw std::runtime_error(file.string() +
                                 " cannot be written: " + std::strerror(written ? errno : reason));
    }
}

}  // namespace vlmBackend::web
