#pragma once
/// A small signal catalog for tests. There is one catalog per process.
#include "catalog/VlmJsonCatalog.h"
#include "tests/support/TemporaryFolder.h"

namespace vlmTest {

/// Creates the process's catalog from that text, unless it exists.
inline vlmProd::VlmJsonCatalog& haveCatalog(
    const std::string& text = R"({"meta":{"vlmVersion":"TestCatalog"}})") {
    static vlmProd::VlmJsonCatalog* const catalog = [&text] {
        auto code = vlmProd::FilesReturnCode::Ok;
        return vlmProd::VlmJsonCatalog::createSingleton(TemporaryFolder().write("catalog.json", text), code);
    }();
    return *catalog;
}

}  // namespace vlmTest
