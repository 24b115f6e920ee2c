#pragma once
#include <filesystem>
#include <string>

#include "backend/web/Router.h"

namespace vlmBackend::web {

/// The built page, as files of one folder. Any thread.
class Page {
  public:
    explicit Page(std::filesystem::path folder) : m_folder(std::move(folder)) {}

    /// The installed page, or that of the build folder: relative to this program.
    static std::filesystem::path usualFolder();

    /// Returns the file of that path. Without a page, "/" gives a text that says what is missing.
    Response file(const std::string& path) const;

  private:
    const std::filesystem::path m_folder;
};

}  // namespace vlmBackend::web
