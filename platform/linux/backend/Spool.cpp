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
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "kyo/Status.h"
#include "log/PlatformLog.h"

namespace kyo::orx {

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kBlock = 4096;
constexpr std::uint64_t kLargestNumber = 1'000'000'000'000'000'000;
constexpr std::uint64_t kLargestFile = 65u << 20;  // more cannot be sent
constexpr std::string_view kFormatName = "vlm-spool ";
constexpr std::string_view kEnvelope = ".envelope";
constexpr std::string_view kLast = ".last";
constexpr std::chrono::minutes kBetweenDropLogs{1};

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
    if (!name.ends_with(kEnvelope) || dash == std::string_view::npos) {
        return false;
    }
    name.remove_suffix(kEnvelope.size());
    return readNumber(name.substr(0, dash), entry.number) && entry.number > 0 &&
           readNumber(name.substr(std::min(name.size(), dash + 1)), entry.bytes);
}

bool readMarker(std::string_view name, std::uint64_t& number) {
    return name.ends_with(kLast) && readNumber(name.substr(0, name.size() - kLast.size()), number);
}

std::string paddedNumber(std::uint64_t number) {
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%019llu", static_cast<unsigned long long>(number));
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

bool Spool::list(const fs::path& folder, const std::function<void(const Entry&)>& each) {
    return eachName(folder, [&each](const char* name) {
               if (Entry entry; readName(name, entry)) {
                   each(entry);
               }
           }) == 0;
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
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_open) {
        return true;
    }
    if (!prepare(error)) {
        if (m_lock >= 0) {
            ::close(std::exchange(m_lock, -1));
        }
        return false;
    }
    takeStock();
    m_open = true;
    return true;
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

/// Reads names, no contents.
void Spool::takeStock() {
    std::vector<std::pair<std::uint64_t, fs::path>> markers;
    eachName(m_settings.folder, [&](const char* name) {
        Entry entry;
        if (readName(name, entry)) {
            ++m_waiting;
            m_bytes += onDisk(entry.bytes);
            m_highest = std::max(m_highest, entry.number);
        } else if (readMarker(name, entry.number)) {
            m_highest = std::max(m_highest, entry.number);
            markers.emplace_back(entry.number, m_settings.folder / name);
        }
    });
    eachName(bad(), [&](const char* name) {
        struct stat now {};
        if (Entry entry; readName(name, entry) && ::stat((bad() / name).c_str(), &now) == 0) {
            m_badBytes += onDisk(static_cast<std::uint64_t>(now.st_size));
            m_highest = std::max(m_highest, entry.number);
        }
    });
    std::sort(markers.begin(), markers.end());
    for (std::size_t i = 0; i < markers.size(); ++i) {
        if (i + 1 < markers.size()) {
            m_disk.remove(markers[i].second);
        } else {
            m_marker = markers[i].second;
        }
    }
    ::unlink((m_settings.folder / "new").c_str());
    m_recentFrom = m_highest + 1;
}

/// Looks for the next names above `after`. False when the folder cannot be read.
bool Spool::fill(std::uint64_t after) {
    std::vector<Entry> least;  // a heap with the greatest number on top
    const auto less = [](const Entry& a, const Entry& b) { return a.number < b.number; };
    bool isMore = false;
    const bool good = list(m_settings.folder, [&](const Entry& entry) {
        if (entry.number <= after) {
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
    if (!good) {
        return false;
    }
    std::sort(least.begin(), least.end(), less);
    m_ahead.assign(least.begin(), least.end());
    m_aheadAfter = after;
    m_aheadTo = isMore ? least.back().number : m_highest;
    return true;
}

std::optional<Spool::Entry> Spool::next(std::uint64_t after) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_open ? nextLocked(after) : std::nullopt;
}

std::optional<Spool::Entry> Spool::nextLocked(std::uint64_t after) {
    // Each turn moves on by what one look at the folder shows.
    while (m_waiting > 0 && after + 1 < m_recentFrom) {
        if (after < m_aheadAfter || after >= m_aheadTo) {
            if (!fill(after)) {
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
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_open) {
        error = "the spool is not open";
        return Stored::NotYet;
    }
    envelope.number = m_highest + 1;
    const std::string content = writeSpoolFile(envelope);
    if (!makeRoom(onDisk(content.size()))) {
        static Counter& dropped = Status::counter("spool.dropped.full");
        // Its number is used up, so that the backend sees the gap.
        ++m_highest;
        dropped.add();
        ++m_dropsNotLogged;
        logDrops();
        return Stored::Dropped;
    }
    const Entry entry{envelope.number, content.size()};
    const fs::path made = m_settings.folder / "new";
    const fs::path file = fileOf(m_settings.folder, entry);
    int code = m_disk.write(made, content);
    if (code == 0) {
        code = m_disk.rename(made, file);
        if (code == 0 && (code = m_disk.syncFolder(m_settings.folder)) != 0) {
            m_disk.remove(file);
        }
    }
    if (code != 0) {
        m_disk.remove(made);
        refused.add();
        error = "the spool " + m_settings.folder.string() + " takes no envelope: " + std::strerror(code);
        return Stored::NotYet;
    }
    stored.add();
    m_highest = entry.number;
    ++m_waiting;
    m_bytes += onDisk(entry.bytes);
    m_recent.push_back(entry);
    if (m_recent.size() > kAhead) {
        m_recent.pop_front();
        m_recentFrom = m_recent.front().number;
    }
    return Stored::Durably;
}

/// Deletes the file; the highest number stays as a name, so that no other envelope gets it after a restart.
/// False when it was not there.
bool Spool::discard(const fs::path& file, std::uint64_t number) {
    if (number < m_highest) {
        return m_disk.remove(file) != ENOENT;
    }
    const fs::path marker = m_settings.folder / (paddedNumber(number) + std::string(kLast));
    if (const int code = m_disk.rename(file, marker); code != 0) {
        return code != ENOENT;
    }
    m_disk.truncate(marker);
    if (!m_marker.empty()) {
        m_disk.remove(m_marker);
    }
    m_marker = marker;
    return true;
}

/// `wasThere` false: somebody else may have deleted it, or it was dropped and forgotten before.
void Spool::forget(const Entry& entry, bool wasThere) {
    const bool isAhead = eraseNumber(m_ahead, entry.number);
    const bool isRecent = eraseNumber(m_recent, entry.number);
    if (wasThere || isAhead || isRecent) {
        m_waiting -= m_waiting > 0 ? 1 : 0;
        m_bytes -= std::min(m_bytes, onDisk(entry.bytes));
    }
    m_onTheirWay.erase(entry.number);
}

bool Spool::makeRoom(std::uint64_t needed) {
    const auto fits = [&] { return m_bytes + m_badBytes + needed <= m_settings.maxBytes; };
    if (needed > m_settings.maxBytes) {
        return false;
    }
    while (!fits() && m_badBytes > 0 && dropBad()) {
    }
    for (const bool alsoOnTheirWay : {false, true}) {
        std::uint64_t after = 0;
        while (!fits() && m_settings.dropOldest) {
            const auto oldest = nextLocked(after);
            if (!oldest) {
                break;
            }
            after = oldest->number;
            if (alsoOnTheirWay || m_onTheirWay.count(oldest->number) == 0) {
                dropOne(*oldest);
            }
        }
    }
    return fits();
}

void Spool::dropOne(const Entry& entry) {
    static Counter& dropped = Status::counter("spool.dropped.full");
    forget(entry, discard(fileOf(m_settings.folder, entry), entry.number));
    dropped.add();
    ++m_dropsNotLogged;
    logDrops();
}

/// The oldest file in bad/. False when there is none that can be deleted.
bool Spool::dropBad() {
    static Counter& dropped = Status::counter("spool.dropped.bad");
    std::optional<Entry> oldest;
    list(bad(), [&oldest](const Entry& entry) {
        if (!oldest || entry.number < oldest->number) {
            oldest = entry;
        }
    });
    struct stat now {};
    if (!oldest || ::stat(fileOf(bad(), *oldest).c_str(), &now) != 0) {
        m_badBytes = 0;
        return false;
    }
    discard(fileOf(bad(), *oldest), oldest->number);
    m_badBytes -= std::min(m_badBytes, onDisk(static_cast<std::uint64_t>(now.st_size)));
    dropped.add();
    return true;
}

std::size_t Spool::purgeBad() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Entry> entries;
    list(bad(), [&entries](const Entry& entry) { entries.push_back(entry); });
    for (const Entry& entry : entries) {
        discard(fileOf(bad(), entry), entry.number);
    }
    m_badBytes = 0;
    return entries.size();
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
            forget(entry, false);
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
    forget(entry, discard(fileOf(m_settings.folder, entry), entry.number));
}

void Spool::setAside(const Entry& entry, const std::string& why) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    setAsideLocked(entry, why);
}

void Spool::setAsideLocked(const Entry& entry, const std::string& why) {
    static Counter& setAside = Status::counter("spool.setAside");
    const fs::path from = fileOf(m_settings.folder, entry);
    const fs::path to = fileOf(bad(), entry);
    KYO_LOG(3, from.string() << " moves to bad/: " << why);
    setAside.add();
    int code = m_disk.makeFolder(bad());
    code = code == 0 ? m_disk.rename(from, to) : code;
    forget(entry, code != ENOENT);
    if (code == 0) {
        struct stat now {};
        m_badBytes += ::stat(to.c_str(), &now) == 0 ? onDisk(static_cast<std::uint64_t>(now.st_size)) : 0;
    }
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
    if (m_settings.maxAgeSeconds == 0) {
        return;
    }
    const auto limit = static_cast<std::int64_t>(m_settings.maxAgeSeconds) * 1000;
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::uint64_t count = 0;
    for (auto oldest = oldestLocked(); oldest && m_oldestMs > 0 && nowMs - m_oldestMs > limit;
         oldest = oldestLocked()) {
        forget(*oldest, discard(fileOf(m_settings.folder, *oldest), oldest->number));
        dropped.add();
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
    const auto oldest = m_open ? nextLocked(0) : std::nullopt;
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
