#include "app/RunningState.h"

#include <atomic>

namespace vlmProd {

namespace {

std::atomic<bool> g_running{false};

}  // namespace

bool isApplicationRunning() {
    return g_running.load();
}

void setApplicationRunning(bool running) {
    g_running.store(running);
}

}  // namespace vlmProd
