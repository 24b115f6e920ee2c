#include "backend/web/Page.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>
#include <utility>

namespace vlmBackend::web {

namespace {

namespace fs = std::filesystem;

constexpr std::array<std::pair<std::string_view, std::string_view>, 12> kTypes{{
    {".html", "text/html; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".svg", "image/svg+xml"},
    {".png", "image/png"},
    {".ico", "image/x-icon"},
    {".json", "application/json"},
    {".webmanifest", "application/manifest+json"},
    {".woff2", "font/woff2"},
    {".txt", "text/plain; charset=utf-8"},
    {".map", "application/json"},
    {".webp", "image/webp"},
}};

constexpr const char* kMissing =
    "<!doctype html><html lang=\"en\"><meta charset=\"utf-8\"><title>vlm-backend</title><h1>The page is "
    "missing</h1><p>vlm-backend runs, but its page was not built: that needs npm. Install npm, then build "
    "again, or "
    "name the folder of a built page with <code>--page</code>.</p><p>The data can be read all the same: <a "
    "href=\"/api/vehicles\">/api/vehicles</a>.</p></html>";

/// No way out of the folder, and no hidden files.
bool isPlain(std::string_view segment) {
    return !segment.empty() && segment.front() != '.' &&
           std::all_of(segment.begin(), segment.end(), [](unsigned char c) {
               return std::isalnum(c) != 0 || c == '.' || c == '-' || c == '_';
           });
}

bool isPlainPath(std::string_view path) {
    while (path.starts_with('/')) {
        path.remove_prefix(1);
        const auto end = std::min(path.find('/'), path.size());
        if (!isPlain(path.substr(0, end))) {
            return false;
        }
        path.remove_prefix(end);
    }
    return path.empty();
}

}  // namespace

fs::path Page::usualFolder() {
    std::error_code none;
    const fs::path here = fs::read_symlink("/proc/self/exe", none).parent_path();
    const fs::path installed = here.parent_path() / "share/vlmmaster/page";
    return fs::exists(installed / "index.html", none) ? installed : here.parent_path() / "page";
}

Response Page::file(const std::string& path) const {
    const std::string wanted = path == "/" ? "/index.html" : path;
    Response out;
    std::error_code none;
    const fs::path file = m_folder / wanted.substr(std::min<std::size_t>(1, wanted.size()));
    std::ifstream in;
    if (isPlainPath(wanted) && fs::is_regular_file(file, none)) {
        in.open(file, std::ios::binary);
    }
    if (!in.is_open() || !in) {
        if (path != "/") {
            throw Problem(404, "there is no " + path);
        }
        out.type = "text/html; charset=utf-8";
        out.body = kMissing;
        return out;
    }
    out.body.assign(std::istreambuf_iterator<char>(in), {});
    out.type = "application/octet-stream";
    for (const auto& [suffix, type] : kTypes) {
        out.type = wanted.ends_with(suffix) ? type : out.type;
    }
    // The build puts a hash of the content into the names of what is in assets/.
    const bool hashed = wanted.starts_with("/assets/");
    out.headers.emplace_back("Cache-Control", hashed ? "public, max-age=31536000, immutable" : "no-cache");
    const auto changed = fs::last_write_time(file, none).time_since_epoch().count();
    out.headers.emplace_back("ETag",
                             "W/\"" + std::to_string(out.body.size()) + "-" + std::to_string(changed) + "\"");
    return out;
}

}  // namespace vlmBackend::web
