#include "bus/FilterUpdate.h"

#include "base/VlmLog.h"

namespace vlmProd {

FilterUpdate::FilterUpdate() {
    VLM_TRACE(7);
}

kyo::Json::Value FilterUpdate::returnType(std::string /*name*/) {
    return {};
}

}  // namespace vlmProd
