#include "services/ServiceDiscovery.h"

#include <mutex>
#include <thread>
#include <utility>

#include "base/VlmLog.h"
#include "kyo/Status.h"
#include "services/ProxyNames.h"
#include "services/ServiceMapObjectHandler.h"

namespace vlmProd {

namespace {

constexpr unsigned int kNameWeight = 1;
constexpr std::chrono::seconds kPause{2};

}  // namespace

ServiceDiscovery::ServiceDiscovery()
    : ServiceDiscovery(
          [](const std::string& name) { return ServiceMapObjectHandler::GetInstance()->findService(name); },
          [](std::chrono::seconds pause) { std::this_thread::sleep_for(pause); }) {}

ServiceDiscovery::ServiceDiscovery(FindService findService, Pause pause)
    : m_findService(std::move(findService)),
      m_pause(std::move(pause)),
      m_names(&kyo::Status::counter("queue.discovery.dropped")) {}

ServiceDiscovery::~ServiceDiscovery() {
    VLM_TRACE(7);
}

void ServiceDiscovery::push(std::string name) {
    m_names.put(std::move(name), kNameWeight);
}

void ServiceDiscovery::discoverService(std::string serviceName) {
    VLM_LOG(5, "Pushing the service " << serviceName << "  to queue to discover it");
    push(std::move(serviceName));
    SendWakeupSignal();
}

void ServiceDiscovery::discoverService(std::vector<std::string>& services) {
    for (auto& service : services) {
        service = proxyNames::of(service);
        VLM_LOG(5, "Pushing the service " << service << "  to queue to discover it");
        push(service);
    }
    SendWakeupSignal();
}

void ServiceDiscovery::SendWakeupSignal() {
    const SleepLock lock = lockSleep();
    VLM_LOG(5, "Waking up Service discovery Thread to process the serviceName");
    broadcast();
}

void ServiceDiscovery::stopServiceDiscoveryThread() {
    m_stop = true;
    const SleepLock lock = lockSleep();
    VLM_LOG(5, "Waking up Service discovery Thread to process the serviceName and exit.");
    broadcast();
}

void ServiceDiscovery::run() {
    const Running running(*this);
    VLM_LOG(7, "ServiceDiscovery thread starting up");
    VLM_LOG(7, "Starting to read from queue");
    while (!m_stop) {
        if (m_names.size() != 0) {
            drainOnce();
        } else {
            const SleepLock lock = lockSleep();
            VLM_LOG(7, "Conditional wait because There is nothing to discover services.");
            sleepUntilWoken();
        }
    }
}

void ServiceDiscovery::processServiceNames() {
    std::string name;
    while (m_names.take(&name)) {
        VLM_LOG(5, "Processing the service name " << name);
        if (m_findService(name)) {
            VLM_LOG(5, "Successfully discovered the service " << name);
        } else {
            push(name);
        }
        m_pause(kPause);
    }
}

bool ServiceDiscovery::drainOnce() {
    processServiceNames();
    return !m_stop;
}

}  // namespace vlmProd
