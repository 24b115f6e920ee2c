#include "ac/com/runtime/component.h"

#include <atomic>

#include "kyo/Json.h"
#include "kyo/Status.h"
#include "log/PlatformLog.h"
#include "machine/Manifest.h"
#include "someip/Runtime.h"

namespace ac::com::runtime {

namespace {

/// The object that started the middleware. Further objects neither start nor end it.
std::atomic<const Component_singleton*> owner{nullptr};

bool settingsFrom(const std::string& configuration, machine::SomeIpSettings& settings) {
    if (configuration.empty()) {
        settings = machine::manifest().someip;
        return true;
    }
    kyo::Json::Reader reader;
    kyo::Json::Value document(kyo::Json::objectValue);
    if (!reader.parse(configuration, document["someip"])) {
        KYO_LOG(3, "The middleware's configuration is no JSON: " << reader.getFormattedErrorMessages());
        return false;
    }
    machine::Manifest manifest;
    std::string error;
    if (!machine::readManifest(document, manifest, error)) {
        KYO_LOG(3, "The middleware's configuration is wrong: " << error);
        return false;
    }
    settings = manifest.someip;
    return true;
}

}  // namespace

Component_singleton::Component_singleton(bool providesServices, const std::string& configuration) {
    kyo::Status::gauge("someip.up",
                       [] { return kyo::Json::Value(someip::Runtime::process().networkIsUp()); });
    machine::SomeIpSettings settings;
    if (settingsFrom(configuration, settings) &&
        someip::Runtime::process().start(settings, providesServices)) {
        owner.store(this);
    }
}

Component_singleton::~Component_singleton() {
    const Component_singleton* self = this;
    if (owner.compare_exchange_strong(self, nullptr)) {
        someip::Runtime::process().stop();
    }
}

}  // namespace ac::com::runtime
