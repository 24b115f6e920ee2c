#pragma once
#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "backend/SpoolDisk.h"
#include "backend/SpoolFile.h"

namespace kyo {
class Counter;
}

namespace kyo::orx {

/// Envelopes that wait on disk, one file each, in the order of their numbers.
///
///     <folder>/format                              "vlm-spool 1"
///     <folder>/lock                                held by the process that owns the spool
///     <folder>/<number>-<bytes>.envelope           waits
///     <folder>/<number>.last                       empty: no number up to this one is used again
///     <folder>/bad/<number>-<bytes>.envelope       cannot be used, or the broker refuses it for good
///
/// The folder is the whole state. Memory does not depend on how much waits: sizes are in the names, a start
/// reads names alone, and of these at most kAhead are kept. What is stored is durable when store() returns;
/// deletions are not synchronised, so after a power cut a delivered envelope may be there again.
///
/// A deletion that the disk refuses is retried, and the file counts towards the limit until then. At most
/// kMostUndone such files are remembered; what waits is not shown while there are so many.
///
/// All operations may be called from any thread. open() and store() wait for a synchronisation, and of the
/// others only skipNumber() waits for store().
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
    static constexpr std::size_t kMostUndone = 16384;

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
    /// counted, and logged once a minute. NotYet: the disk does not take it, or does not make room for it,
    /// with the cause in `error`: it is to be stored again, or its number to be skipped.
    Stored store(SpooledEnvelope& envelope, std::string& error);
    /// For an envelope that the caller drops: its number is used up, so that the backend sees the gap.
    void skipNumber();

    /// The waiting envelope with the least number above `after`. `error`: 0, or errno when that is not known
    /// now.
    std::optional<Entry> next(std::uint64_t after, int& error);
    std::optional<Entry> next(std::uint64_t after) {
        int error = 0;
        return next(after, error);
    }
    /// Gone: it is not there any more, or cannot be used and was moved to bad/. NotNow: the system has no
    /// descriptor or memory left.
    Read read(const Entry& entry, SpooledEnvelope& envelope);
    /// After its delivery.
    void remove(const Entry& entry);
    /// Moves one to bad/, counts it and logs why.
    void setAside(const Entry& entry, const std::string& why);
    /// Deletes what is in bad/.
    void purgeBad();
    /// One that is on its way is dropped for room only if nothing else is left.
    void setOnItsWay(std::uint64_t number, bool isOnItsWay);
    /// Drops what is older than the limit, at that wall-clock time. An envelope of the future has no age. To
    /// be called every few seconds: it also retries what the disk refused.
    void dropOld(std::int64_t nowMs);

    std::uint64_t highest() const;
    std::uint64_t waiting() const;
    /// Of all files, in blocks.
    std::uint64_t bytes() const;
    /// When the oldest was stored, wall clock; 0 when nothing waits.
    std::int64_t oldestStoredMs();

    const std::filesystem::path& folder() const { return m_settings.folder; }

    /// The names in a spool's folder, in no order. 0, or errno when it cannot be read.
    static int list(const std::filesystem::path& folder, const std::function<void(const Entry&)>& each);
    static std::filesystem::path fileOf(const std::filesystem::path& folder, const Entry& entry);
    /// Whether a folder is a spool of a format that this program knows.
    static bool isKnown(const std::filesystem::path& folder, std::string& error);

  private:
    /// Named as an envelope that does not wait any more.
    struct Undone {
        std::uint64_t bytes;
        bool isBad;  ///< is to be moved to bad/, not deleted
    };
    /// With its blocks: one that was cut is shorter than named.
    using BadFile = std::pair<Entry, std::uint64_t>;

    bool prepare(std::string& error);
    int takeStock();
    int listBad(std::vector<BadFile>& found);
    int fill(std::uint64_t after);
    std::optional<Entry> nextLocked(std::uint64_t after, int& error);
    std::optional<Entry> oldestLocked();
    bool fits(std::uint64_t needed) const;
    int makeRoom(std::uint64_t needed);
    int dropBad(std::uint64_t needed);
    int dropWaiting(std::uint64_t needed);
    int drop(const Entry& entry, Counter& dropped);
    bool forget(const Entry& entry, bool wasThere);
    void freeBytes(std::uint64_t fileBytes);
    int discard(const std::filesystem::path& file, std::uint64_t number);
    void mark();
    void finish(const Entry& entry, bool isBad);
    int takeAway(const Entry& entry, bool isBad);
    int catchUp();
    void setAsideLocked(const Entry& entry, const std::string& why);
    void logDrops();
    std::filesystem::path bad() const { return m_settings.folder / "bad"; }
    std::filesystem::path marker(std::uint64_t number) const;

    const Settings m_settings;
    SpoolDisk& m_disk;

    std::mutex m_storeMutex;     ///< one envelope at a time is written; taken before m_mutex
    mutable std::mutex m_mutex;  ///< guards what follows, and the files up to m_highest
    int m_lock = -1;
    bool m_open = false;
    std::uint64_t m_highest = 0;  ///< the last number that was given; changes under both mutexes
    std::uint64_t m_named =
        0;  ///< the highest number that the name of an envelope keeps, over a power cut, too
    std::uint64_t m_marked = 0;  ///< that of m_marker
    std::uint64_t m_waiting = 0;
    std::uint64_t m_bytes = 0;     ///< what waits and what is undone, in blocks
    std::uint64_t m_badBytes = 0;  ///< what is in bad/, likewise
    std::filesystem::path m_marker;
    std::map<std::uint64_t, Undone> m_undone;  ///< by number: what the disk refused to delete or to move
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
