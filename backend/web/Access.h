#pragma once
/// Who may send which request: users with passwords, a token, and limits for each address.
#include <chrono>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "backend/web/Router.h"

namespace vlmBackend::web {

struct Caller {
    std::string address;        ///< IP address of the peer
    std::string host;           ///< header "Host"
    std::string authorization;  ///< header "Authorization"
};

struct AccessSettings {
    bool loopback = true;         ///< served to this machine alone
    std::filesystem::path users;  ///< file with a user per line, name:role:hash; empty: none
    std::string token;            ///< for programs, with the role "configure"; empty: none

    bool isOpen() const { return users.empty() && token.empty(); }
};

/// Any thread.
class Access {
  public:
    static constexpr int kMostFailures = 10;  ///< of an address, in kFailureMemory
    static constexpr std::chrono::seconds kFailureMemory{60};
    static constexpr double kRequestsPerSecond = 200;  ///< of an address, after a burst
    static constexpr double kBurst = 1000;

    /// Throws std::runtime_error with file and line when the users cannot be read.
    explicit Access(AccessSettings settings);

    /// Sets user and role of the request. Returns an answer if the request is refused. A caller without
    /// credentials has the role None, unless there are neither users nor a token.
    std::optional<Response> admit(const Caller& caller, Request& request);

  private:
    using Clock = std::chrono::steady_clock;
    struct User {
        Role role = Role::None;
        std::string hash;
    };
    struct Address {
        double left = kBurst;
        Clock::time_point seen;
        int failures = 0;
        Clock::time_point firstFailure;
    };

    std::optional<Response> limit(const std::string& address);
    void countFailure(const std::string& address);
    void readUsers();
    bool verify(const std::string& credentials, Request& request);

    const AccessSettings m_settings;
    std::mutex m_mutex;
    std::map<std::string, Address> m_addresses;  ///< guarded by m_mutex

    std::mutex m_hashing;  ///< one hash at a time: each takes memory and time; guards what follows
    std::map<std::string, User> m_users;
    std::filesystem::file_time_type m_usersChanged;
    std::map<std::string, Clock::time_point> m_verified;  ///< digest of credentials, end of their validity
};

/// Adds the user to the file, or replaces its password and role. Throws std::runtime_error.
void addUser(const std::filesystem::path& file, const std::string& name, const std::string& role,
             const std::string& password);

}  // namespace vlmBackend::web
