#pragma once
/// The local socket for state and status requests: one JSON object per line in both directions.
/// docs/platform.md describes the protocol.
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "kyo/Json.h"
#include "kyo/WakeFd.h"

namespace ara::stm {

/// Limits against a client that is slow, greedy or broken.
struct StateServerLimits {
    std::size_t clients = 16;
    std::size_t requestBytes = 4096;
    std::chrono::milliseconds idle{30'000};          ///< without a byte in either direction
    std::chrono::milliseconds confirmation{10'000};  ///< for the component to confirm a state
};

/// Serves the socket with one thread, from construction to destruction. Never waits for a client.
class StateServer {
  public:
    /// Called on the server's thread, without a lock held.
    using StateHandler = std::function<void(std::uint32_t requestId, const std::string& state)>;
    enum class Confirmation { Sent, RequesterGone, NotAsked };

    /// Throws std::system_error when it cannot create the socket; EADDRINUSE when another process serves it.
    StateServer(std::string path, StateHandler onState, const StateServerLimits& limits = {});
    /// Waits for a running handler, then removes the socket.
    ~StateServer();
    StateServer(const StateServer&) = delete;
    StateServer& operator=(const StateServer&) = delete;

    /// Any thread; does not block.
    Confirmation confirm(std::uint32_t requestId, const std::string& state, std::string_view result);

  private:
    using Clock = std::chrono::steady_clock;

    struct Client {
        int socket = -1;
        std::string in;
        std::string out;
        bool ended = false;  ///< sends no more requests; closed when all are answered
        bool broken = false;
        Clock::time_point lastMoved;
    };
    struct Request {
        std::uint64_t client = 0;
        std::string state;
        Clock::time_point until;
    };

    void prepareFolder() const;
    void listen();
    void closeAll();
    void run();
    void accept();
    void receive(std::uint64_t id);
    void handleLines(std::uint64_t id);
    void handleLine(std::uint64_t id, std::string_view line);
    void requestState(std::uint64_t id, const kyo::Json::Value& document);
    void answer(std::uint64_t id, const kyo::Json::Value& document);
    void refuse(std::uint64_t id, const std::string& reason);
    bool makeRoom();
    Clock::time_point sweep(Clock::time_point now);
    bool hasRequest(std::uint64_t client) const;

    static void append(Client& client, const kyo::Json::Value& document);
    static void send(Client& client);

    const std::string m_path;
    const StateHandler m_onState;
    const StateServerLimits m_limits;
    int m_lock = -1;  ///< the lock file, locked while we serve the socket
    int m_listener = -1;
    const kyo::WakeFd m_wake;
    std::atomic<bool> m_ending{false};

    mutable std::mutex m_guard;
    std::map<std::uint64_t, Client> m_clients;    ///< guarded by m_guard
    std::map<std::uint32_t, Request> m_requests;  ///< guarded by m_guard
    std::uint32_t m_nextRequest = 1;              ///< guarded by m_guard

    // Used by the thread alone.
    std::uint64_t m_nextClient = 1;
    Clock::time_point m_acceptAfter{};

    std::thread m_thread;
};

}  // namespace ara::stm
