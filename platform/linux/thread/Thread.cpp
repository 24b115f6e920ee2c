#include "kyo/Thread.h"

#include <system_error>

#include "kyo/Log.h"

namespace kyo {

Thread::~Thread() {
    Thread::detach();
}

void Thread::start() {
    // run() may call detach() before the assignment below: the lock makes it wait.
    const std::lock_guard<std::mutex> lock(m_guard);
    if (m_started.load(std::memory_order_relaxed)) {
        return;
    }
    try {
        m_thread = std::thread([this] { run(); });
        m_started.store(true, std::memory_order_relaxed);
    } catch (const std::system_error& error) {
        if (Log::enabled(3)) {
            Log line;
            line.get(3) << "virtual void kyo::Thread::start():" << __LINE__
                        << " No thread could be started: " << error.what();
        }
    }
}

void Thread::stop() {}

void Thread::exit() {}

void Thread::join() {
    std::thread mine;
    {
        const std::lock_guard<std::mutex> lock(m_guard);
        mine = std::move(m_thread);
    }
    if (mine.joinable()) {
        mine.join();
    }
}

void Thread::detach() {
    const std::lock_guard<std::mutex> lock(m_guard);
    if (m_thread.joinable()) {
        m_thread.detach();
    }
}

}  // namespace kyo
