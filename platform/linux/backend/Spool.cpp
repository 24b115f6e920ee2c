#include "backend/Spool.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "kyo/Status.h"
#include "log/PlatformLog.h"

namespace kyo::orx {

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kBlock = 4096;
constexpr std::uint64_t kLargestNumber = 1'000'000'000'000'000'000;
constexpr std::size_t kDigits = 19;
constexpr std::uint64_t kLargestFile = 65u << 20;  // more cannot be sent
constexpr std::string_view kFormatName = "vlm-spool ";
constexpr std::string_view kEnvelope = ".envelope";
constexpr std::string_view kLast = ".last";
constexpr std::chrono::minutes kBetweenDropLogs{1};
constexpr int kNoRoom = -1;       ///< the limit is reached, and no errno says why
constexpr int kMostRefusals = 8;  ///< one file may be the reason of a refusal; so many mean the disk
constexpr std::uint64_t kAll = std::numeric_limits<std::uint64_t>::max();

std::uint64_t onDisk(std::uint64_t bytes) {
    return (bytes + kBlock - 1) / kBlock * kBlock;
}

bool readNumber(std::string_view text, std::uint64_t& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number <= kLargestNumber;
}

/// "<number>-<bytes>.envelope"
bool readName(std::string_view name, Spool::Entry& entry) {
    const auto dash = name.find('-');
    if (!name.ends_with(kEnvelope) || dash != kDigits) {
        return false;
    }
    name.remove_suffix(kEnvelope.size());
    return readNumber(name.substr(0, dash), entry.number) && entry.number > 0 &&
           readNumber(name.substr(dash + 1), entry.bytes);
}

bool readMarker(std::string_view name, std::uint64_t& number) {
    return name.ends_with(kLast) && readNumber(name.substr(0, name.size() - kLast.size()), number);
}

std::string paddedNumber(std::uint64_t number) {
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%0*llu", static_cast<int>(kDigits),
                  static_cast<unsigned long long>(number));
    return text.data();
}

/// Every name in the folder. errno when it cannot be read.
int eachName(const fs::path& folder, const std::function<void(const char*)>& each) {
    const std::unique_ptr<DIR, int (*)(DIR*)> handle(::opendir(folder.c_str()), ::closedir);
    if (!handle) {
        return errno;
    }
    errno = 0;
    while (const dirent* const entry = ::readdir(handle.get())) {
        each(static_cast<const char*>(entry->d_name));
        errno = 0;
    }
    return errno;
}

/// At most `limit` bytes of a file. False with errno.
bool readFile(const fs::path& file, std::uint64_t limit, std::string& content) {
    const int handle = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (handle < 0) {
        return false;
    }
    struct stat now {};
    bool good = ::fstat(handle, &now) == 0;
    content.resize(good ? std::min<std::uint64_t>(limit, static_cast<std::uint64_t>(now.st_size)) : 0);
    std::size_t have = 0;
    while (good && have < content.size()) {
        const ssize_t got = ::read(handle, content.data() + have, content.size() - have);
        good = got >= 0 || errno == EINTR;
        if (got == 0) {
            break;
        }
        have += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    const int error = errno;
    content.resize(have);
    ::close(handle);
    errno = error;
    return good;
}

bool eraseNumber(std::deque<Spool::Entry>& entries, std::uint64_t number) {
    const auto found =
        std::lower_bound(entries.begin(), entries.end(), number,
                         [](const Spool::Entry& entry, std::uint64_t n) { return entry.number < n; });
    if (found != entries.end() && found->number == number) {
        entries.erase(found);
        return true;
    }
    return false;
}

std::optional<Spool::Entry> firstAbove(const std::deque<Spool::Entry>& entries, std::uint64_t after) {
    const auto found =
        std::upper_bound(entries.begin(), entries.end(), after,
                         [](std::uint64_t n, const Spool::Entry& entry) { return n < entry.number; });
    return found != entries.end() ? std::optional(*found) : std::nullopt;
}

}  // namespace

SpoolDisk& Spool::ordinaryDisk() {
    static auto* const disk = new SpoolDisk;  // threads that outlive main may use it
    return *disk;
}

Spool::Spool(Settings settings, SpoolDisk& disk) : m_settings(std::move(settings)), m_disk(disk) {}

Spool::~Spool() {
    if (m_lock >= 0) {
        ::close(m_lock);
    }
}

fs::path Spool::fileOf(const fs::path& folder, const Entry& entry) {
    return folder / (paddedNumber(entry.number) + '-' + std::to_string(entry.bytes) + std::string(kEnvelope));
}

fs::path Spool::marker(std::uint64_t number) const {
    return m_settings.folder / (paddedNumber(number) + std::string(kLast));
}

int Spool::list(const fs::path& folder, const std::function<void(const Entry&)>& each) {
    return eachName(folder, [&each](const char* name) {
        if (Entry entry; readName(name, entry)) {
            each(entry);
        }
    });
}

bool Spool::isKnown(const fs::path& folder, std::string& error) {
    std::string content;
    if (!readFile(folder / "format", 100, content)) {
        error = (folder / "format").string() + " cannot be read: " + std::strerror(errno);
        return false;
    }
    std::uint64_t version = 0;
    std::string_view text = content;
    text = text.substr(0, text.find('\n'));
    if (!text.starts_with(kFormatName) || !readNumber(text.substr(kFormatName.size()), version)) {
        error = folder.string() + " is no spool: its file \"format\" does not say so";
        return false;
    }
    if (version != kSpoolFormat) {
        error = folder.string() + " is a spool of format " + std::to_string(version) + ", and format " +
                std::to_string(kSpoolFormat) + " is known";
        return false;
    }
    return true;
}

bool Spool::open(std::string& error) {
    const std::lock_guard<std::mutex> storing(m_storeMutex);
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_open) {
        return true;
    }
    m_open = prepare(error);
    if (const int code = m_open ? takeStock() : 0; code != 0) {
        error = "the spool " + m_settings.folder.string() + " cannot be read: " + std::strerror(code);
        m_open = false;
    }
    if (!m_open && m_lock >= 0) {
        ::close(std::exchange(m_lock, -1));
    }
    return m_open;
}

bool Spool::prepare(std::string& error) {
    const fs::path& folder = m_settings.folder;
    const auto failed = [&error, &folder](int code) {
        error = "the spool " + folder.string() + " cannot be used: " + std::strerror(code);
        return code != 0;
    };
    if (const int code = m_disk.makeFolder(folder); code != 0 && failed(code)) {
        return false;
    }
    m_lock = ::open((folder / "lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (m_lock < 0) {
        return !failed(errno);
    }
    if (::flock(m_lock, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            return !failed(errno);
        }
        error = "the spool " + folder.string() + " belongs to another process";
        return false;
    }
    if (::access((folder / "format").c_str(), F_OK) == 0) {
        return isKnown(folder, error);
    }
    const fs::path made = folder / "new";
    int code = m_disk.write(made, std::string(kFormatName) + std::to_string(kSpoolFormat) + '\n');
    code = code == 0 ? m_disk.rename(made, folder / "format") : code;
    code = code == 0 ? m_disk.syncFolder(folder) : code;
    code = code == 0 && folder.has_parent_path() ? m_disk.syncFolder(folder.parent_path()) : code;
    return code == 0 || !failed(code);
}

/// Reads names, no contents. 0, or errno when it could not.
int Spool::takeStock() {
    std::vector<std::pair<std::uint64_t, fs::path>> markers;
    std::vector<BadFile> badFiles;
    m_named = m_waiting = m_bytes = 0;
    const int code = eachName(m_settings.folder, [&](const char* name) {
        Entry entry;
        if (readName(name, entry)) {
            ++m_waiting;
            m_bytes += onDisk(entry.bytes);
            m_named = std::max(m_named, entry.number);
        } else if (readMarker(name, entry.number)) {
            markers.emplace_back(entry.number, m_settings.folder / name);
        }
    });
    if (code != 0) {
        return code;
    }
    if (const int badCode = listBad(badFiles); badCode != 0) {
        return badCode;
    }
    if (!badFiles.empty()) {
        m_named = std::max(m_named, badFiles.back().first.number);
    }
    std::sort(markers.begin(), markers.end());
    for (std::size_t i = 0; i < markers.size(); ++i) {
        if (i + 1 < markers.size()) {
            m_disk.remove(markers[i].second);
        } else {
            std::tie(m_marked, m_marker) = markers[i];
        }
    }
    ::unlink((m_settings.folder / "new").c_str());
    m_highest += std::max(m_named, m_marked);  // some may have been skipped before
    m_recentFrom = m_highest + 1;
    mark();
    return 0;
}

/// The files in bad/, in order, and m_badBytes. 0 or errno.
int Spool::listBad(std::vector<BadFile>& found) {
    std::vector<Entry> entries;
    const int code = list(bad(), [&entries](const Entry& entry) { entries.push_back(entry); });
    if (code != 0 && code != ENOENT) {
        return code;
    }
    m_badBytes = 0;
    for (const Entry& entry : entries) {
        if (struct stat now{}; ::stat(fileOf(bad(), entry).c_str(), &now) == 0) {
            found.emplace_back(entry, onDisk(static_cast<std::uint64_t>(now.st_size)));
            m_badBytes += found.back().second;
        }
    }
    std::sort(found.begin(), found.end(),
              [](const BadFile& a, const BadFile& b) { return a.first.number < b.first.number; });
    return 0;
}

/// Looks for the next names above `after`. 0, or errno when the folder cannot be read.
int Spool::fill(std::uint64_t after) {
    std::vector<Entry> least;  // a heap with the greatest number on top
    const auto less = [](const Entry& a, const Entry& b) { return a.number < b.number; };
    bool isMore = false;
    const int code = list(m_settings.folder, [&](const Entry& entry) {
        // A number above the highest is being written just now.
        if (entry.number <= after || entry.number > m_highest || m_undone.count(entry.number) != 0) {
            return;
        }
        least.push_back(entry);
        std::push_heap(least.begin(), least.end(), less);
        if (least.size() > kAhead) {
            std::pop_heap(least.begin(), least.end(), less);
            least.pop_back();
            isMore = true;
        }
    });
    if (code != 0) {
        return code;
    }
    std::sort(least.begin(), least.end(), less);
    m_ahead.assign(least.begin(), least.end());
    m_aheadAfter = after;
    m_aheadTo = isMore ? least.back().number : m_highest;
    return 0;
}

std::optional<Spool::Entry> Spool::next(std::uint64_t after, int& error) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    error = m_undone.size() >= kMostUndone ? EBUSY : 0;
    return m_open && error == 0 ? nextLocked(after, error) : std::nullopt;
}

std::optional<Spool::Entry> Spool::nextLocked(std::uint64_t after, int& error) {
    // Each turn moves on by what reading the folder once shows.
    while (m_waiting > 0 && after + 1 < m_recentFrom) {
        if (after < m_aheadAfter || after >= m_aheadTo) {
            if (error = fill(after); error != 0) {
                return std::nullopt;
            }
        }
        if (const auto found = firstAbove(m_ahead, after)) {
            return found;
        }
        after = std::max(after + 1, m_aheadTo);
    }
    return firstAbove(m_recent, after);
}

Spool::Stored Spool::store(SpooledEnvelope& envelope, std::string& error) {
    static Counter& stored = Status::counter("spool.stored");
    static Counter& refused = Status::counter("spool.writeFailed");
    static Counter& dropped = Status::counter("spool.dropped.full");
    const std::lock_guard<std::mutex> storing(m_storeMutex);
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_open) {
        error = "the spool is not open";
        return Stored::NotYet;
    }
    envelope.number = m_highest + 1;
    const std::string content = writeSpoolFile(envelope);
    const Entry entry{envelope.number, content.size()};
    if (m_undone.erase(entry.number) != 0) {
        freeBytes(entry.bytes);  // the same file of an attempt before; it is replaced
    }
    int code = makeRoom(onDisk(entry.bytes));
    if (code == kNoRoom) {
        ++m_highest;
        mark();
        dropped.add();
        ++m_dropsNotLogged;
        logDrops();
        return Stored::Dropped;
    }
    lock.unlock();  // nobody else waits for the synchronisation
    const fs::path made = m_settings.folder / "new";
    const fs::path file = fileOf(m_settings.folder, entry);
    int left = 0;
    if (code == 0 && (code = m_disk.write(made, content)) == 0 && (code = m_disk.rename(made, file)) == 0 &&
        (code = m_disk.syncFolder(m_settings.folder)) != 0) {
        left = m_disk.remove(file);
    }
    lock.lock();
    if (code != 0) {
        m_disk.remove(made);
        if (left != 0) {
            m_undone.insert_or_assign(entry.number, Undone{entry.bytes, false});
            m_bytes += onDisk(entry.bytes);
        }
        refused.add();
        error = "the spool " + m_settings.folder.string() + " takes no envelope: " + std::strerror(code);
        return Stored::NotYet;
    }
    stored.add();
    m_highest = m_named = entry.number;
    ++m_waiting;
    m_bytes += onDisk(entry.bytes);
    m_recent.push_back(entry);
    if (m_recent.size() > kAhead) {
        m_recent.pop_front();
        m_recentFrom = m_recent.front().number;
    }
    return Stored::Durably;
}

void Spool::skipNumber() {
    const std::lock_guard<std::mutex> storing(m_storeMutex);
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_highest;
    if (m_open) {
        mark();
    }
}

/// Keeps the highest number as a name, if no name does. The marker is there from the start, so that it needs
/// no room on a full disk: it changes its name. What the disk refuses is tried again with the next drop,
/// deletion or dropOld().
void Spool::mark() {
    if (std::max(m_named, m_marked) >= m_highest && !m_marker.empty()) {
        return;
    }
    const fs::path made = marker(m_highest);
    int code = m_marker.empty() ? ENOENT : m_disk.rename(m_marker, made);
    if (code == ENOENT) {
        code = m_disk.write(made, "");
    }
    if (code == 0) {
        m_marker = made;
        m_marked = m_highest;
    }
}

/// Deletes the file. The highest number stays as a name, so that no other envelope gets it after a restart. A
/// marker alone may not have reached the disk: the last file becomes one. 0 or errno.
int Spool::discard(const fs::path& file, std::uint64_t number) {
    if (number < m_named) {
        return m_disk.remove(file);
    }
    const fs::path made = marker(std::max(number, m_highest));
    if (const int code = m_disk.rename(file, made); code != 0) {
        return code;
    }
    m_disk.truncate(made);
    if (!m_marker.empty() && m_marker != made) {
        m_disk.remove(m_marker);
    }
    m_marker = made;
    m_marked = std::max(number, m_highest);
    return 0;
}

/// It does not wait any more. False when it did not: `wasThere` false means that somebody else may have
/// deleted it, or that it was dropped and forgotten before.
bool Spool::forget(const Entry& entry, bool wasThere) {
    const bool isAhead = eraseNumber(m_ahead, entry.number);
    const bool isRecent = eraseNumber(m_recent, entry.number);
    m_onTheirWay.erase(entry.number);
    const bool hasWaited = wasThere || isAhead || isRecent;
    m_waiting -= hasWaited && m_waiting > 0 ? 1 : 0;
    return hasWaited;
}

void Spool::freeBytes(std::uint64_t fileBytes) {
    m_bytes -= std::min(m_bytes, onDisk(fileBytes));
}

/// The end of an envelope: its file is deleted, or moved to bad/, now or later.
void Spool::finish(const Entry& entry, bool isBad) {
    if (m_undone.count(entry.number) != 0) {
        return;
    }
    catchUp();
    const int code = takeAway(entry, isBad);
    const bool hasWaited = forget(entry, code != ENOENT);
    if (code != 0 && code != ENOENT) {
        if (m_undone.empty()) {
            KYO_LOG(3, fileOf(m_settings.folder, entry).string()
                           << " cannot be " << (isBad ? "moved" : "deleted") << ": " << std::strerror(code)
                           << "; trying again every few seconds");
        }
        m_undone.emplace(entry.number, Undone{entry.bytes, isBad});
    } else if (hasWaited) {
        freeBytes(entry.bytes);
    }
}

/// 0 or errno.
int Spool::takeAway(const Entry& entry, bool isBad) {
    const fs::path from = fileOf(m_settings.folder, entry);
    if (!isBad) {
        return discard(from, entry.number);
    }
    const fs::path to = fileOf(bad(), entry);
    int code = m_disk.makeFolder(bad());
    code = code == 0 ? m_disk.rename(from, to) : code;
    if (struct stat now{}; code == 0 && ::stat(to.c_str(), &now) == 0) {
        m_badBytes += onDisk(static_cast<std::uint64_t>(now.st_size));
    }
    return code;
}

/// Tries again what the disk refused. 0 when nothing is left, or errno.
int Spool::catchUp() {
    mark();
    int code = 0;
    int refusals = 0;
    for (auto one = m_undone.begin(); one != m_undone.end() && refusals < kMostRefusals;) {
        const int outcome = takeAway({one->first, one->second.bytes}, one->second.isBad);
        if (outcome == 0 || outcome == ENOENT) {
            freeBytes(one->second.bytes);
            one = m_undone.erase(one);
        } else {
            code = outcome;
            ++refusals;
            ++one;
        }
    }
    return code;
}

bool Spool::fits(std::uint64_t needed) const {
    return needed <= m_settings.maxBytes && m_bytes + m_badBytes <= m_settings.maxBytes - needed;
}

/// 0 when there is room, kNoRoom when the limit forbids it, or errno when the disk does.
int Spool::makeRoom(std::uint64_t needed) {
    if (needed > m_settings.maxBytes) {
        return kNoRoom;
    }
    int code = fits(needed) ? 0 : catchUp();
    for (const auto step : {&Spool::dropBad, &Spool::dropWaiting}) {
        if (!fits(needed)) {
            const int outcome = (this->*step)(needed);
            code = outcome != 0 ? outcome : code;
        }
    }
    return fits(needed) ? 0 : code != 0 ? code : kNoRoom;
}

/// The oldest of those that are not on their way first, if the policy says so. 0 or errno.
int Spool::dropWaiting(std::uint64_t needed) {
    static Counter& dropped = Status::counter("spool.dropped.full");
    int code = 0;
    int refusals = 0;
    for (const bool alsoOnTheirWay : {false, true}) {
        std::uint64_t after = 0;
        while (m_settings.dropOldest && !fits(needed) && refusals < kMostRefusals) {
            int unknown = 0;
            const auto oldest = nextLocked(after, unknown);
            if (!oldest) {
                code = unknown != 0 ? unknown : code;
                break;
            }
            after = oldest->number;
            if (!alsoOnTheirWay && m_onTheirWay.count(after) != 0) {
                continue;
            }
            if (const int outcome = drop(*oldest, dropped); outcome != 0) {
                code = outcome;
                ++refusals;
            } else {
                ++m_dropsNotLogged;
                logDrops();
            }
        }
    }
    return code;
}

/// 0, or errno: then it goes on waiting.
int Spool::drop(const Entry& entry, Counter& dropped) {
    const int code = discard(fileOf(m_settings.folder, entry), entry.number);
    if (code != 0 && code != ENOENT) {
        return code;
    }
    dropped.add(code == 0 ? 1 : 0);
    if (forget(entry, code == 0)) {
        freeBytes(entry.bytes);
    }
    return 0;
}

/// The oldest files in bad/. 0 or errno.
int Spool::dropBad(std::uint64_t needed) {
    static Counter& dropped = Status::counter("spool.dropped.bad");
    std::vector<BadFile> found;
    int code = m_badBytes > 0 ? listBad(found) : 0;
    int refusals = 0;
    for (const auto& [entry, bytes] : found) {
        if (fits(needed) || refusals == kMostRefusals) {
            break;
        }
        if (const int outcome = discard(fileOf(bad(), entry), entry.number); outcome != 0) {
            code = outcome;
            ++refusals;
        } else {
            m_badBytes -= bytes;
            dropped.add();
        }
    }
    return code;
}

void Spool::purgeBad() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    dropBad(kAll);
}

void Spool::logDrops() {
    const auto now = std::chrono::steady_clock::now();
    if (now >= m_nextDropLog) {
        KYO_LOG(3, "The spool " << m_settings.folder.string() << " is full: " << m_dropsNotLogged
                                << " of the " << (m_settings.dropOldest ? "oldest" : "newest")
                                << " envelopes dropped");
        m_nextDropLog = now + kBetweenDropLogs;
        m_dropsNotLogged = 0;
    }
}

Spool::Read Spool::read(const Entry& entry, SpooledEnvelope& envelope) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const fs::path file = fileOf(m_settings.folder, entry);
    std::string content;
    if (!readFile(file, kLargestFile, content)) {
        const int code = errno;
        if (code == EMFILE || code == ENFILE || code == ENOMEM) {
            return Read::NotNow;
        }
        if (code == ENOENT) {
            if (forget(entry, false)) {
                freeBytes(entry.bytes);
            }
        } else {
            setAsideLocked(entry, std::string("it cannot be read: ") + std::strerror(code));
        }
        return Read::Gone;
    }
    std::string error;
    bool good = readSpoolFile(content, envelope, error);
    if (good && envelope.number != entry.number) {
        good = false;
        error = "it holds number " + std::to_string(envelope.number);
    }
    if (!good) {
        setAsideLocked(entry, error);
    }
    return good ? Read::Whole : Read::Gone;
}

void Spool::remove(const Entry& entry) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    finish(entry, false);
}

void Spool::setAside(const Entry& entry, const std::string& why) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    setAsideLocked(entry, why);
}

void Spool::setAsideLocked(const Entry& entry, const std::string& why) {
    static Counter& setAside = Status::counter("spool.setAside");
    KYO_LOG(3, fileOf(m_settings.folder, entry).string() << " moves to bad/: " << why);
    setAside.add();
    finish(entry, true);
}

void Spool::setOnItsWay(std::uint64_t number, bool isOnItsWay) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (isOnItsWay) {
        m_onTheirWay.insert(number);
    } else {
        m_onTheirWay.erase(number);
    }
}

void Spool::dropOld(std::int64_t nowMs) {
    static Counter& dropped = Status::counter("spool.dropped.age");
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_open) {
        catchUp();
    }
    if (m_settings.maxAgeSeconds == 0) {
        return;
    }
    const auto limit = static_cast<std::int64_t>(m_settings.maxAgeSeconds) * 1000;
    std::uint64_t count = 0;
    for (auto oldest = oldestLocked(); oldest && m_oldestMs > 0 && nowMs - m_oldestMs > limit;
         oldest = oldestLocked()) {
        if (drop(*oldest, dropped) != 0) {
            break;
        }
        ++count;
    }
    if (count > 0) {
        KYO_LOG(3, count << " envelopes dropped from the spool, as they are older than "
                         << m_settings.maxAgeSeconds << " s");
    }
}

std::uint64_t Spool::highest() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_highest;
}

std::uint64_t Spool::waiting() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_waiting;
}

std::uint64_t Spool::bytes() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_bytes + m_badBytes;
}

/// The oldest one that waits, with its time in m_oldestMs.
std::optional<Spool::Entry> Spool::oldestLocked() {
    int unknown = 0;
    const auto oldest = m_open ? nextLocked(0, unknown) : std::nullopt;
    if (oldest && oldest->number != m_oldestNumber) {
        std::string content;
        SpooledEnvelope envelope;
        m_oldestNumber = oldest->number;
        m_oldestMs = readFile(fileOf(m_settings.folder, *oldest), kSpoolHeaderBytes, content) &&
                             readSpoolHeader(content, envelope)
                         ? envelope.storedMs
                         : 0;
    }
    return oldest;
}

std::int64_t Spool::oldestStoredMs() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return oldestLocked() ? m_oldestMs : 0;
}

}  // namespace kyo::orx
