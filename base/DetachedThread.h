#pragma once
#include <pthread.h>

#include <memory>
#include <system_error>
#include <utility>

namespace vlmProd {

/// Runs `work` on a detached thread. Throws std::system_error when the system has no thread left.
///
/// The thread is created detached. Detaching it later would access it again, when a short thread may already
/// have ended and freed its stack: a fault of the C library that ends the process once in some million
/// threads.
template <typename Work>
void startDetached(Work work) {
    auto owned = std::make_unique<Work>(std::move(work));
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    const auto run = [](void* given) noexcept -> void* {
        const std::unique_ptr<Work> mine(static_cast<Work*>(given));
        (*mine)();
        return nullptr;
    };
    pthread_t thread{};
    const int error = ::pthread_create(&thread, &attributes, run, owned.get());
    ::pthread_attr_destroy(&attributes);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), "pthread_create");
    }
    static_cast<void>(owned.release());  // the thread owns it now
}

}  // namespace vlmProd
