#include "backend/DirectoryTransport.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>
#include <vector>

#include "backend/ConfigurationFile.h"
#include "kyo/Status.h"
#include "log/PlatformLog.h"

namespace kyo::orx {

namespace {

constexpr std::chrono::milliseconds kProbePeriod{1000};

class FileHandle {
  public:
    FileHandle(const std::filesystem::path& path, int flags)
        : m_handle(::open(path.c_str(), flags | O_CLOEXEC, 0644)) {}
    ~FileHandle() {
        if (m_handle >= 0) {
            ::close(m_handle);
        }
    }
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;
    bool good() const { return m_handle >= 0; }
    int get() const { return m_handle; }

  private:
    const int m_handle;
};

/// 0 or errno. `offset` -1: at the end of a file opened for appending.
int writeAll(int handle, const char* data, std::size_t size, off_t offset = -1) {
    while (size > 0) {
        const ssize_t written =
            offset < 0 ? ::write(handle, data, size) : ::pwrite(handle, data, size, offset);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
        offset = offset < 0 ? offset : offset + written;
    }
    return 0;
}

int makeFolder(const std::filesystem::path& folder) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    return error.value();
}

/// The length up to and with the last line end.
off_t endOfWholeLines(int handle, off_t size) {
    char block[4096];
    while (size > 0) {
        const off_t begin = std::max<off_t>(0, size - static_cast<off_t>(sizeof block));
        const ssize_t got = ::pread(handle, block, static_cast<std::size_t>(size - begin), begin);
        if (got != size - begin) {
            return size;
        }
        for (ssize_t at = got; at > 0; --at) {
            if (block[at - 1] == '\n') {
                return begin + at;
            }
        }
        size = begin;
    }
    return 0;
}

/// Appends one line and flushes it. 0 or errno, and then the file is as long as before.
int appendLine(const std::filesystem::path& file, const std::string& line) {
    const FileHandle handle(file, O_RDWR | O_APPEND | O_CREAT);
    struct stat before {};
    if (!handle.good() || ::fstat(handle.get(), &before) != 0) {
        return errno;
    }
    if (!S_ISREG(before.st_mode)) {
        return EINVAL;
    }
    const off_t end = endOfWholeLines(handle.get(), before.st_size);
    if (end != before.st_size) {
        if (::ftruncate(handle.get(), end) != 0) {
            return errno;
        }
        KYO_LOG(3, file.string() << ": an unfinished line from an earlier run was cut off");
    }
    int error = writeAll(handle.get(), line.data(), line.size());
    if (error == 0 && ::fdatasync(handle.get()) != 0) {
        error = errno;
    }
    if (error != 0) {
        // Should this fail too, the next append finds the unfinished line and cuts it.
        [[maybe_unused]] const int ignored = ::ftruncate(handle.get(), end);
        return error;
    }
    if (end == 0) {  // a new file is safe only with its name
        const FileHandle folder(file.parent_path(), O_RDONLY | O_DIRECTORY);
        if (folder.good()) {
            ::fsync(folder.get());
        }
    }
    return 0;
}

/// Whether `bytes` more could be appended now: 0 or errno. They go to a file of their own, at the offset at
/// which they would stand (so limits of size count), and never into the envelopes.
int tryAppending(const std::filesystem::path& file, std::size_t bytes) {
    struct stat now {};
    {
        const FileHandle handle(file, O_RDWR | O_APPEND | O_CREAT);
        if (!handle.good() || ::fstat(handle.get(), &now) != 0) {
            return errno;
        }
        if (!S_ISREG(now.st_mode)) {
            return EINVAL;
        }
    }
    std::filesystem::path trial = file;
    trial += ".probe";
    int error = 0;
    {
        const FileHandle handle(trial, O_WRONLY | O_CREAT | O_TRUNC);
        if (!handle.good()) {
            return errno;
        }
        const std::string filling(bytes, ' ');
        error = writeAll(handle.get(), filling.data(), filling.size(), now.st_size);
        if (error == 0 && ::fdatasync(handle.get()) != 0) {
            error = errno;
        }
    }
    ::unlink(trial.c_str());
    return error;
}

}  // namespace

DirectoryTransport::DirectoryTransport(machine::DirectoryBackend settings, Presence presence,
                                       machine::MessageLimits limits)
    : m_folder(settings.path),
      m_envelopes(m_folder / "envelopes.jsonl"),
      m_configuration(m_folder / settings.configuration),  // an absolute path stays as it is
      m_presence(std::move(presence)),
      m_limits(limits) {
    // A file at its limit of size is an error of the write, not the end of the process.
    std::signal(SIGXFSZ, SIG_IGN);
}

DirectoryTransport::~DirectoryTransport() {
    m_callbacks.stop();
}

Json::Value DirectoryTransport::opening() const {
    const std::vector<std::string> standard{kDefaultDataType};
    return masterControl("directory",
                         m_presence.offeredDataTypes.empty() ? standard : m_presence.offeredDataTypes, 0, 0);
}

void DirectoryTransport::start() {
    KYO_LOG(5, "Envelopes go to " << m_envelopes.string() << ", the configuration comes from "
                                  << m_configuration.string());
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_probing = true;
    m_callbacks.postDuty([this] { probe(); });
}

std::int32_t DirectoryTransport::send(const Json::Value& envelope) {
    static Counter& sent = Status::counter("orx.sent");
    static Counter& failed = Status::counter("orx.failed");
    std::string line = Json::FastWriter().write(envelope);
    line.push_back('\n');

    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_left) {
        failed.add();
        return -ESHUTDOWN;
    }
    int error = makeFolder(m_folder);
    if (error == 0) {
        error = appendLine(m_envelopes, line);
    }
    if (error != 0) {
        failed.add();
        noteFailure(error, "cannot be written", line.size());
        return -error;
    }
    sent.add();
    noteSuccess();
    deliverOwnMasterControl(opening());
    return 0;
}

void DirectoryTransport::leave() {
    const std::lock_guard<std::mutex> lock(m_mutex);  // an envelope that is being written is waited for
    m_left = true;
}

std::int32_t DirectoryTransport::requestConfiguration() {
    return m_callbacks.post([this] { deliverConfigResponse(readConfiguration()); }) ? 0 : -EAGAIN;
}

void DirectoryTransport::probe() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_probing = false;
    if (m_opened && m_failure.empty()) {
        return;  // a send found the folder good before
    }
    int error = makeFolder(m_folder);
    if (error == 0) {
        error = tryAppending(m_envelopes, m_neededBytes);
    }
    if (error != 0) {
        noteFailure(error, "cannot be written", m_neededBytes);
        return;
    }
    noteSuccess();
    m_opened = true;
    deliverOwnMasterControl(opening());
}

void DirectoryTransport::noteFailure(int error, const char* doing, std::size_t bytes) {
    m_neededBytes = std::max<std::size_t>(1, bytes);
    const std::string cause = m_envelopes.string() + ' ' + doing + ": " + std::strerror(error);
    if (cause != m_failure) {
        KYO_LOG(3, cause << "; trying again every second");
        m_failure = cause;
    }
    if (!m_probing) {
        m_probing = true;
        m_callbacks.postDuty([this] { probe(); }, kProbePeriod);
    }
}

void DirectoryTransport::noteSuccess() {
    m_neededBytes = 1;
    if (!m_failure.empty()) {
        KYO_LOG(5, m_envelopes.string() << " can be written again");
        m_failure.clear();
    }
}

Json::Value DirectoryTransport::readConfiguration() const {
    std::string error;
    Json::Value answer = readConfigurationAnswer(m_configuration, m_limits.configurationBytes, error);
    if (!error.empty()) {
        KYO_LOG(3, "Collector configuration " << error);
    }
    return answer;
}

}  // namespace kyo::orx
