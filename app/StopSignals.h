#pragma once
#include <chrono>
#include <cstdint>

/// Stop signals.
///
/// The signal handler logs, so it must not run while its thread holds a lock of the log. Therefore the
/// signals are blocked on every thread and unblocked only while the main thread waits. It notices a stop at
/// once; a stop during start-up is noticed at the first wait.

/// Handles SIGINT, SIGTERM and SIGABRT: logs the number and requests the exit.
///
/// abort() runs it on the aborting thread, even if the signal is blocked and the thread holds locks. Then the
/// line goes to standard error with a single write instead of the log.
void signal_handler(std::int32_t number);

namespace vlmProd {

/// Call this first in main: threads created later inherit the mask.
void blockStopSignals();
/// Installs signal_handler for signals 2, 15, 6 and 9, in this order. Linux refuses a handler for 9.
void installSignalHandlers();
bool exitRequested();
/// Sleeps on the steady clock; a stop signal ends the sleep early. Main thread only.
void waitForStopSignal(std::chrono::seconds limit);

}  // namespace vlmProd
