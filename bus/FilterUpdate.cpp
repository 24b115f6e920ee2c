#include "bus/FilterUpdate.h"

#include "app/VlmLog.h"

namespace vlmProd {

FilterUpdate::FilterUpdate() {
    VLM_TRACE(7);
}

kyo::Json::Value FilterUpdate::returnType(std::string /*name*/) {
    return {};
}

}  // namespace vlmProd
