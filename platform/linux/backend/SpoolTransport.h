#pragma once
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "backend/Forwarder.h"
#include "backend/Health.h"
#include "backend/MqttTransport.h"
#include "backend/Remembered.h"
#include "backend/Spool.h"
#include "backend/Transport.h"
#include "machine/Manifest.h"

namespace kyo::orx {

/// A spool between the application and the backend behind a broker; docs/mqtt.md describes both ends.
///
/// To the application it is a backend that answers promptly: each envelope gets its result 0 once it is
/// durable. Results and closures of the backend stay here. What the backend permits and its ticket are
/// remembered, so that the channel is open from the start.
class SpoolTransport : public Transport {
  public:
    /// `settings` has a spool.
    SpoolTransport(const machine::BackendSettings& settings, Presence presence,
                   SpoolDisk& disk = Spool::ordinaryDisk());
    ~SpoolTransport() override;

    void start() override;
    /// 0: the envelope is on the disk, or waits in memory for a disk that does not take it. -EAGAIN when such
    /// a one waits already. Blocks for the disk.
    std::int32_t send(const Json::Value& envelope) override;
    std::int32_t requestConfiguration() override;
    void leave() override;
    void configurationAccepted(const std::string& recordId, bool isAccepted,
                               const std::string& reason) override;

  private:
    using Clock = Forwarder::Clock;

    /// What the status shows; shared with its gauges, which live until the process ends.
    struct Figures {
        std::atomic<std::uint64_t> waiting{0};
        std::atomic<std::uint64_t> bytes{0};
        std::atomic<std::int64_t> oldestMs{0};
        std::atomic<double> rate{0};  ///< envelopes a second
        std::atomic<std::uint64_t> window{0};
    };
    static std::shared_ptr<Figures> makeFigures();

    MqttTransport::Hooks hooks();
    void onConnected(std::size_t receiveMaximum);
    void onLost();
    void onMasterControl(const Json::Value& message);
    void onConfiguration(Json::Value answer);
    void onSettled(std::uint64_t number, int reason);

    // The worker's.
    void run();
    void openSpool(Clock::time_point now);
    void retryPending(Clock::time_point now);
    void settleArrived();
    void writeRemembered(Clock::time_point now);
    void keepConfiguration(Clock::time_point now);
    bool forward();
    void tend(Clock::time_point now);
    Clock::time_point wakeAt();
    void wake();

    void answer();
    void logDiskTrouble(const std::string& cause);

    // Set once.
    const machine::SpoolBackend m_settings;
    SpoolDisk& m_disk;
    const std::shared_ptr<Figures> m_figures;
    Spool m_spool;

    std::mutex m_sendMutex;  ///< one envelope at a time is stored; taken before m_mutex
    // Guarded by m_sendMutex.
    const std::unique_ptr<Compressor> m_compressor;
    std::optional<SpooledEnvelope> m_pending;  ///< the disk does not take it
    std::string m_lastStored;                  ///< its messageId
    bool m_left = false;                       ///< no further envelope is taken
    std::string m_diskTrouble;                 ///< logged last; empty while the disk takes envelopes

    std::mutex m_keepMutex;  ///< one configuration at a time is written; taken before m_mutex

    /// The network thread takes it, so nobody holds it while the disk synchronises.
    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex.
    bool m_stopping = false;
    bool m_isWoken = false;
    bool m_hasSpoken = false;  ///< the application knows what is permitted
    bool m_isPending = false;
    RememberedControl m_control;
    Forwarder m_forwarder;
    std::uint64_t m_connection = 0;  ///< counts connections
    std::vector<Spool::Entry> m_arrived;
    std::vector<std::uint64_t> m_refusedForGood;
    RememberedConfiguration m_configuration;
    Health m_health;
    std::minstd_rand m_chance{std::random_device{}()};

    // Worker only.
    bool m_isOpen = false;
    RememberedControl m_written;
    Clock::time_point m_nextTry{};     ///< of what the disk did not take
    Clock::time_point m_nextTend{};    ///< of age and figures
    Clock::time_point m_nextTicket{};  ///< from then on a new ticket alone is written
    Clock::time_point m_lastTend{};
    std::uint64_t m_deliveredThen = 0;

    std::unique_ptr<MqttTransport> m_link;
    std::thread m_worker;
};

}  // namespace kyo::orx
