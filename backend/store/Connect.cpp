#include "backend/store/Sqlite.h"

namespace vlmBackend::store {

std::unique_ptr<Sql> connect(const std::string& where, bool readOnly) {
    return std::make_unique<Sqlite>(where, readOnly);
}

}  // namespace vlmBackend::store
