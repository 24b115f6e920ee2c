#pragma once
/// A small signal catalog for tests. There is one catalog per process.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "catalog/VlmJsonCatalog.h"

namespace vlmTest {

/// Creates the process's catalog from that text, unless it exists.
inline vlmProd::VlmJsonCatalog& haveCatalog(
    const std::string& text = R"({"meta":{"vlmVersion":"TestCatalog"}})") {
    static vlmProd::VlmJsonCatalog* const catalog = [&text] {
        const std::string path = "/tmp/vlm-test-catalog-" + std::to_string(getpid()) + ".json";
        std::ofstream(path) << text;
        auto code = vlmProd::FilesReturnCode::Ok;
        auto* const created = vlmProd::VlmJsonCatalog::createSingleton(path, code);
        std::remove(path.c_str());
        return created;
    }();
    return *catalog;
}

}  // namespace vlmTest
