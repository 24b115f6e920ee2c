#pragma once
/// The state and the decisions of the backend. Owns no thread and no connection to a broker.
#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "backend/Compression.h"
#include "backend/store/Configurations.h"
#include "backend/store/Store.h"
#include "backend/store/Totals.h"
#include "kyo/Json.h"

namespace vlmBackend {

/// The result for which no answer is sent.
inline constexpr int kSilence = -1;

struct Settings {
    std::size_t prefixLevels = 2;        ///< of a topic; the last one of them is the vehicle's name
    std::vector<std::string> permitted;  ///< data types; empty: those that a vehicle offers
    std::vector<int> results{0};         ///< one for each envelope; the last one repeats
    std::chrono::milliseconds answerAfter{0};
    std::chrono::milliseconds reopenAfter{1000};  ///< from a result that is not 0 to the opening message
    bool open = true;                             ///< whether the channel is open at the start
    bool namesEnvelopes = true;                   ///< whether a result names its envelope
    std::filesystem::path configuration;          ///< collector configuration; empty: requests get no answer
    std::filesystem::path store;                  ///< envelopes as JSON Lines; empty: not stored
    kyo::orx::Dictionaries dictionaries;          ///< that vehicles may use
    store::Store* database = nullptr;  ///< for all that vehicles send; none: not stored. Outlives this
    std::shared_ptr<store::Totals> totals = std::make_shared<store::Totals>();
    std::string
        instance;  ///< name of this one among several with the same database, a server's; empty: alone
    /// Pause between a vehicle's return and a configuration that it has not requested.
    std::chrono::milliseconds returnPause{3000};
};

struct Incoming {
    std::string topic;
    std::string payload;
};

struct Outgoing {
    std::string topic;
    std::string payload;
    std::chrono::milliseconds after{0};
    /// The channel's state in a master-control message; the message is dropped if that has changed meanwhile.
    std::optional<bool> channel;
};

/// Serves the vehicles of all topics that it gets. Each vehicle has its own place in the script of results.
class Backend {
  public:
    using Print = std::function<void(const std::string& line)>;
    using Clock = std::chrono::steady_clock;

    Backend(Settings settings, Print print);

    /// Takes messages on <prefix>/status, <prefix>/health, <prefix>/config/request and <prefix>/data; the
    /// topic of data has the suffix of its MqttConnection::Form. A prefix that names no vehicle is refused.
    /// Presence comes first. Stores all envelopes of a call in one transaction, or in several if their texts
    /// are long. Returns the answers to send.
    std::vector<Outgoing> onMessages(const std::vector<Incoming>& messages);
    std::vector<Outgoing> onMessage(const std::string& topic, const std::string& payload) {
        return onMessages({{topic, payload}});
    }
    /// Opens or closes the channel to all vehicles that are online.
    std::vector<Outgoing> setOpen(bool open);

    /// Takes lines of envelopes, or of `vlm-spool export`, as if that vehicle had sent them. Returns how many
    /// lines are stored now; stops at the first that cannot be.
    std::size_t import(const std::string& prefix, const std::vector<std::string>& lines);

    /// The database did not take an envelope; the vehicles wait for an opening message until retry()
    /// succeeds.
    bool databaseFailed() const { return m_databaseFailed; }
    std::vector<Outgoing> retry();

    /// Call it when assignments may have changed. Returns configurations for the vehicles that are online.
    std::vector<Outgoing> onConfigurationsChanged();
    /// Returns the messages that are due at `now`. nextTick(): when to call it again.
    std::vector<Outgoing> tick(Clock::time_point now);
    std::optional<Clock::time_point> nextTick() const;

    /// Call it last: other instances can then take over the vehicles at once.
    void leave();

    bool isOpen() const { return m_settings.open; }
    const store::Totals& totals() const { return *m_settings.totals; }

  private:
    struct Vehicle {
        bool online = false;
        std::vector<std::string> offered;
        std::size_t answered = 0;  ///< envelopes so far: the place in the script
        std::deque<std::string> recentIds;
        bool isChecked = false;  ///< m_checks has an entry that counts
        bool asks = false;       ///< waits for a configuration that the database did not return
        bool isOurs = false;     ///< always true with one instance
        std::string catalog;
        Clock::time_point asked{};  ///< when another instance was asked for a configuration
        bool isUnwritten = false;   ///< the database lacks its last presence
    };

    struct Message {
        std::string prefix;
        std::string topic;  ///< what follows the prefix: "/status", "/data/zstd/17"
        const std::string& payload;
    };

    /// An envelope on its way through one call.
    struct Arrived {
        store::Received received;
        std::string id;
        std::string report;
        bool known = false;            ///< the database has it
        bool lacksDictionary = false;  ///< so it may be readable later
        std::uint64_t collections = 0;
        std::uint64_t samples = 0;
    };

    Outgoing masterControl(const std::string& prefix, const Vehicle& vehicle, int result, bool newTicket,
                           const std::string& messageId = "");
    Arrived decode(const std::string& prefix, const std::string& suffix, const std::string& payload);
    void describe(Arrived& arrived);
    std::vector<bool> store(std::vector<Arrived>& batch);
    std::vector<Outgoing> openAll();
    std::vector<Message> split(const std::vector<Incoming>& messages);
    bool readMessage(const Message& message, kyo::Json::Value& content);
    std::vector<Outgoing> onStatuses(const std::vector<Message>& messages);
    std::vector<Outgoing> onRequest(const std::string& prefix);
    Outgoing configurationMessage(const std::string& prefix, const store::Configuration& configuration) const;
    bool notePresences(const std::vector<std::string>& prefixes);
    void renewLease(Clock::time_point now, std::vector<Outgoing>& out);
    void noteChanges(std::vector<Outgoing>& out);
    bool isAlone() const { return m_settings.instance.empty(); }
    bool sendOpen(const std::vector<std::string>& prefixes, std::vector<Outgoing>& out);
    void noteDatabaseFailed(const std::string& reason);
    std::vector<Outgoing> onEnvelope(const Arrived& arrived, bool stored);
    bool append(const std::string& envelope);

    Settings m_settings;
    const Print m_print;
    std::map<std::string, Vehicle> m_vehicles;  ///< by topic prefix
    store::EnvelopeReader m_reader;
    bool m_databaseFailed = false;
    int m_ticket = 0;
    Clock::time_point m_nextRenewal{};
    Clock::time_point m_nextCheck{};  ///< for changes that other instances have made
    std::int64_t m_changes = 0;
    std::deque<std::pair<Clock::time_point, std::string>>
        m_checks;                      ///< prefixes of vehicles that have returned
    std::deque<std::string> m_unsent;  ///< prefixes of vehicles whose configuration has changed
};

/// Reads "0,0,1,2,0", with "-" for no answer. Returns false for another text.
bool readResults(const std::string& text, std::vector<int>& results);

}  // namespace vlmBackend
