#pragma once
#include <filesystem>
#include <string_view>

namespace kyo::orx {

/// What a spool does to a disk: each change is one call, so that a test can refuse it, or leave out what no
/// synchronisation has covered when the power goes. All return 0 or errno.
class SpoolDisk {
  public:
    using Path = std::filesystem::path;

    SpoolDisk() = default;
    virtual ~SpoolDisk() = default;
    SpoolDisk(const SpoolDisk&) = delete;
    SpoolDisk& operator=(const SpoolDisk&) = delete;

    /// Makes the folder and what is missing above it; only the owner may enter it.
    virtual int makeFolder(const Path& folder);
    /// Makes or replaces a file that only its owner may read, and synchronises its content.
    virtual int write(const Path& file, std::string_view content);
    virtual int rename(const Path& from, const Path& to);
    /// Makes names and deletions in a folder last.
    virtual int syncFolder(const Path& folder);
    virtual int remove(const Path& file);
    /// Makes a file empty.
    virtual int truncate(const Path& file);
};

}  // namespace kyo::orx
