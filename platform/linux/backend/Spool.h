#pragma once
#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "backend/SpoolDisk.h"
#include "backend/SpoolFile.h"

namespace kyo::orx {

/// Envelopes that wait on disk, one file each, in the order of their numbers.
///
///     <folder>/format                              "vlm-spool 1"
///     <folder>/lock                                held by the process that owns the spool
///     <folder>/<number>-<bytes>.envelope           waits
///     <folder>/<number>.last                       was delivered last: its number is not used again
///     <folder>/bad/<number>-<bytes>.envelope       cannot be used, or the broker refuses it for good
///
/// The folder is the whole state. Memory does not depend on how much waits: sizes stand in the names, a start
/// reads names alone, and of these at most kAhead are kept. What is stored is durable when store() returns;
/// deletions are not synchronised, so after a power cut a delivered envelope may be there again.
///
/// All operations may be called from any thread, and block for the disk.
class Spool {
  public:
    struct Settings {
        std::filesystem::path folder;
        /// Of all files, bad ones included, each in blocks of 4096 bytes.
        std::uint64_t maxBytes = 512u << 20;
        std::uint64_t maxAgeSeconds = 0;  ///< 0: none
        bool dropOldest = true;           ///< when full; otherwise the newest
    };
    /// A file that waits.
    struct Entry {
        std::uint64_t number = 0;
        std::uint64_t bytes = 0;
    };
    enum class Stored { Durably, Dropped, NotYet };
    enum class Read { Whole, Gone, NotNow };

    static constexpr std::size_t kAhead = 4096;

    explicit Spool(Settings settings, SpoolDisk& disk = ordinaryDisk());
    /// Gives the lock back.
    ~Spool();
    Spool(const Spool&) = delete;
    Spool& operator=(const Spool&) = delete;

    static SpoolDisk& ordinaryDisk();

    /// Makes the folder and takes the lock. False with the cause in `error`: another process owns it, the
    /// disk does not take it, it is of another format. May be tried again; does nothing once it is open.
    bool open(std::string& error);

    /// Gives the envelope its number and writes it. Dropped: there is no room for it and the policy says so;
    /// counted, and logged once a minute. NotYet: the disk does not take it, with the cause in `error`;
    /// nothing has changed then.
    Stored store(SpooledEnvelope& envelope, std::string& error);

    /// The waiting envelope with the least number above `after`.
    std::optional<Entry> next(std::uint64_t after);
    /// Gone: it is not there any more, or cannot be used and was moved to bad/. NotNow: the system has no
    /// descriptor or memory left.
    Read read(const Entry& entry, SpooledEnvelope& envelope);
    /// After its delivery.
    void remove(const Entry& entry);
    /// Moves one to bad/, counts it and logs why.
    void setAside(const Entry& entry, const std::string& why);
    /// Deletes what is in bad/. Returns how many files that were.
    std::size_t purgeBad();
    /// One that is on its way is dropped for room only if nothing else is left.
    void setOnItsWay(std::uint64_t number, bool isOnItsWay);
    /// Drops what is older than the limit, at that wall-clock time. An envelope of the future has no age.
    void dropOld(std::int64_t nowMs);

    std::uint64_t highest() const;
    std::uint64_t waiting() const;
    /// Of all files, in blocks.
    std::uint64_t bytes() const;
    /// When the oldest was stored, wall clock; 0 when nothing waits.
    std::int64_t oldestStoredMs();

    const std::filesystem::path& folder() const { return m_settings.folder; }

    /// The names in a spool's folder, in no order. False when it cannot be read.
    static bool list(const std::filesystem::path& folder, const std::function<void(const Entry&)>& each);
    static std::filesystem::path fileOf(const std::filesystem::path& folder, const Entry& entry);
    /// Whether a folder is a spool of a format that this program knows.
    static bool isKnown(const std::filesystem::path& folder, std::string& error);

  private:
    bool prepare(std::string& error);
    void takeStock();
    bool fill(std::uint64_t after);
    std::optional<Entry> nextLocked(std::uint64_t after);
    std::optional<Entry> oldestLocked();
    bool makeRoom(std::uint64_t needed);
    bool dropBad();
    void dropOne(const Entry& entry);
    void forget(const Entry& entry, bool wasThere);
    bool discard(const std::filesystem::path& file, std::uint64_t number);
    void setAsideLocked(const Entry& entry, const std::string& why);
    void logDrops();
    std::filesystem::path bad() const { return m_settings.folder / "bad"; }

    const Settings m_settings;
    SpoolDisk& m_disk;

    mutable std::mutex m_mutex;  ///< guards what follows, and the folder
    int m_lock = -1;
    bool m_open = false;
    std::uint64_t m_highest = 0;  ///< the last number that was given
    std::uint64_t m_waiting = 0;
    std::uint64_t m_bytes = 0;     ///< what waits, in blocks
    std::uint64_t m_badBytes = 0;  ///< likewise
    std::filesystem::path m_marker;
    std::set<std::uint64_t> m_onTheirWay;
    std::deque<Entry> m_ahead;  ///< all that wait with m_aheadAfter < number <= m_aheadTo
    std::uint64_t m_aheadAfter = 0;
    std::uint64_t m_aheadTo = 0;
    std::deque<Entry> m_recent;  ///< all that wait with number >= m_recentFrom
    std::uint64_t m_recentFrom = 1;
    std::uint64_t m_oldestNumber = 0;  ///< whose time m_oldestMs is
    std::int64_t m_oldestMs = 0;
    std::uint64_t m_dropsNotLogged = 0;
    std::chrono::steady_clock::time_point m_nextDropLog{};
};

}  // namespace kyo::orx
