#pragma once
/// What /api/ answers from the database, as backend/api/openapi.yaml describes it. All functions throw
/// DatabaseError, and Problem for an unknown name.
#include <cstdint>
#include <optional>
#include <string>

#include "backend/store/Events.h"
#include "backend/store/Sql.h"
#include "kyo/Json.h"

namespace vlmBackend::web {

/// Samples measured from `fromMs` on and before `toMs`. A missing limit means the first or last sample.
struct Range {
    std::optional<std::int64_t> fromMs;
    std::optional<std::int64_t> toMs;
    std::optional<std::int64_t> instance;  ///< without it, the one with the most samples
};

kyo::Json::Value catalog();

/// Which vehicles are listed.
struct VehicleChoice {
    std::string search;  ///< part of name or group, in any case; empty: all
    std::string show;    ///< "all", "online", "offline", "losses", "waiting" or "refused"
    std::string after;   ///< those with a greater name; empty: all
    std::int64_t limit = 0;
};

/// Returns the first `limit` of them by name. Throws Problem for an unknown `show`.
kyo::Json::Value vehicles(store::Sql& sql, const VehicleChoice& choice);
/// Returns totals, and the number of vehicles per group and per assigned configuration.
kyo::Json::Value fleet(store::Sql& sql);
kyo::Json::Value vehicle(store::Sql& sql, const std::string& name);
std::int64_t vehicleId(store::Sql& sql, const std::string& name);

kyo::Json::Value latest(store::Sql& sql, const std::string& vehicle);
/// The newest first, of all instances unless the range names one. `after`: the cursor of the sample that
/// they follow; empty: the range's end.
kyo::Json::Value samples(store::Sql& sql, const std::string& vehicle, const Event& event, const Range& range,
                         const std::string& after, std::int64_t limit);
kyo::Json::Value track(store::Sql& sql, const std::string& vehicle, const Range& range, std::int64_t points);
kyo::Json::Value series(store::Sql& sql, const std::string& vehicle, const Event& event,
                        const EventField& field, const Range& range, std::int64_t bins);

/// `vehicle`: empty for all.
kyo::Json::Value unusable(store::Sql& sql, const std::string& vehicle);
std::string unusableBytes(store::Sql& sql, std::int64_t id);

/// The statement that series() runs, to check its query plan: $1 vehicle, $2 event, $3 and $4 range,
/// $5 instance, $6 ms of a bin.
std::string seriesStatement(const EventField& field, store::Dialect dialect);

}  // namespace vlmBackend::web
