#include "backend/SpoolDisk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

namespace kyo::orx {

namespace {

int outcome(int result) {
    return result == 0 ? 0 : errno;
}

}  // namespace

int SpoolDisk::makeFolder(const Path& folder) {
    std::error_code error;
    if (folder.has_parent_path()) {
        std::filesystem::create_directories(folder.parent_path(), error);
    }
    if (::mkdir(folder.c_str(), S_IRWXU) == 0 || errno == EEXIST) {
        return 0;
    }
    return error ? error.value() : errno;
}

int SpoolDisk::write(const Path& file, std::string_view content) {
    const int handle = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (handle < 0) {
        return errno;
    }
    int error = 0;
    while (error == 0 && !content.empty()) {
        const ssize_t written = ::write(handle, content.data(), content.size());
        if (written >= 0) {
            content.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            error = errno;
        }
    }
    if (error == 0) {
        error = outcome(::fsync(handle));
    }
    ::close(handle);
    return error;
}

int SpoolDisk::rename(const Path& from, const Path& to) {
    return outcome(::rename(from.c_str(), to.c_str()));
}

int SpoolDisk::syncFolder(const Path& folder) {
    const int handle = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (handle < 0) {
        return errno;
    }
    const int error = outcome(::fsync(handle));
    ::close(handle);
    return error;
}

int SpoolDisk::remove(const Path& file) {
    return outcome(::unlink(file.c_str()));
}

int SpoolDisk::truncate(const Path& file) {
    return outcome(::truncate(file.c_str(), 0));
}

}  // namespace kyo::orx
