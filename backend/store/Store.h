#pragma once
/// What vehicles have sent, in a database: vehicles, reports, samples, and what could not be read.
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "backend/Compression.h"
#include "backend/store/Envelope.h"
#include "backend/store/Sql.h"
#include "kyo/Json.h"

namespace vlmBackend::store {

struct Received {
    std::string prefix;       ///< topic prefix of the vehicle
    std::string text;         ///< the envelope; what came instead, if `reason` says that it is none
    std::string reason;       ///< why the payload could not be decoded; empty: it was
    std::string spoolNumber;  ///< empty: the vehicle has no spool
    std::size_t wireBytes = 0;
    std::int64_t receivedMs = 0;
};

enum class Outcome {
    Stored,
    Repeated,  ///< the vehicle has sent it before; nothing was changed
    Unusable,  ///< kept as it came, with the reason
    Failed     ///< nothing of it is stored: the database does not take it now
};

struct Stored {
    Outcome outcome = Outcome::Failed;
    std::string reason;  ///< of Unusable and Failed, and of samples that were refused
    std::string messageId;
    std::string report;  ///< name and sequence number, for people
    std::size_t collections = 0;
    std::size_t samples = 0;
    std::size_t refused = 0;  ///< samples that fit no event; kept aside
};

struct Presence {
    std::string prefix;
    bool online = false;
    std::string catalog;
    bool isOurs = false;  ///< set by setPresence()
};

struct Deleted {
    std::int64_t reports = 0;
    std::int64_t samples = 0;
    bool isMore = false;  ///< than that is to be deleted
};

/// The last level of the topic prefix: "vlm/bench" is the vehicle "bench".
std::string vehicleName(std::string_view prefix);
/// Why a vehicle cannot have that name; empty: it can.
std::string nameFault(std::string_view name);

/// Used by one thread. A lost connection is made again at the next call.
class Store {
  public:
    /// Migrates the database. Throws DatabaseError.
    explicit Store(std::string where);
    ~Store();

    /// Stores all of them in one transaction. On return, what is not Failed survives a crash. Never throws.
    std::vector<Stored> put(std::span<const Received> batch);
    /// The presence of vehicles, each of them once, in one transaction. With the name of an instance, those
    /// that are online become its own, unless another one that is alive has them. False when the database
    /// fails. Never throws.
    bool setPresence(std::span<Presence> all, const std::string& instance, std::int64_t nowMs);
    /// The vehicle's health message, a JSON object, and what it says of the configuration that was sent.
    /// Never throws.
    void setHealth(const std::string& prefix, const kyo::Json::Value& health, std::int64_t nowMs);

    /// Runs the work inside a transaction. False, with nothing changed, when the database fails. Never
    /// throws.
    bool transact(const std::function<void(Sql& sql)>& work);

    /// Deletes a part of what was received before, in a fraction of a second: storing goes on between two
    /// calls. Throws DatabaseError.
    Deleted deleteBefore(std::int64_t receivedMs);

    Sql& sql();  ///< throws DatabaseError when the database cannot be reached

  private:
    /// What a batch adds to a vehicle's row.
    struct Added {
        std::int64_t reports = 0;
        std::int64_t samples = 0;
        std::int64_t unusable = 0;
        std::int64_t lastReport = 0;  ///< 0: none
        std::int64_t receivedMs = 0;
    };
    struct Newest {
        std::int64_t measuredMs = 0;
        std::int64_t receivedMs = 0;
        std::string values;
    };

    void addTotals();
    std::int64_t vehicleId(const std::string& prefix);
    std::int64_t eventId(const Event& event);
    bool putAll(std::span<const Received> batch, std::vector<Stored>& all, std::string& reason);
    std::vector<Stored> putEach(std::span<const Received> batch, const std::string& reason);
    Stored putOne(const Received& received);
    std::int64_t insertReport(const Envelope& envelope, std::int64_t vehicle, const Received& received);
    bool keepUnusable(std::int64_t vehicle, std::int64_t receivedMs, const std::string& reason,
                      const std::string& payload, bool isWhole);
    bool deleteReports(std::int64_t receivedMs, Deleted& deleted);
    bool deleteUnusable(std::int64_t receivedMs);
    bool attempt(const std::function<void()>& work, std::string& reason);

    const std::string m_where;
    std::unique_ptr<Sql> m_sql;
    DatabaseError::Cause m_cause = DatabaseError::Cause::Other;  ///< of the last attempt that failed
    EnvelopeReader m_reader;
    kyo::orx::Compressor m_compressor;
    std::map<std::string, std::int64_t> m_vehicles;  ///< ids that are committed
    std::map<const Event*, std::int64_t> m_events;
    // Of the batch; sorted, so that instances that write the same rows wait for each other in one order.
    std::map<std::int64_t, Added> m_added;  ///< by vehicle
    std::map<std::tuple<std::int64_t, std::int64_t, std::int64_t>, Newest>
        m_newest;  ///< vehicle, event, instance
};

}  // namespace vlmBackend::store
