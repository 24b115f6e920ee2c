/// In the place of the base setup, which starts the whole product: the targets end before it.
#include "Fuzzing.h"
#include "config/ConfigResponseHandler.h"

namespace vlmProd {

ConfigResponseHandler* ConfigResponseHandler::getInstance() {
    vlmFuzz::require(false, "no target gets to the base setup");
    return nullptr;
}

bool ConfigResponseHandler::doBaseSetupFromOrxConfigResponse(kyo::Json::Value, std::string, std::string) {
    return false;
}

void ConfigResponseHandler::subscribeResources() {}

}  // namespace vlmProd
