#pragma once
#include <chrono>
#include <cstdint>

/// How the process learns that it is to end.
///
/// The signal handler logs, so it must not run while its thread holds a lock of the log. The signals are
/// therefore blocked in every thread and open only while the main thread waits: a stop is then noticed at
/// once, and one that comes during start-up is noticed at the first wait.

/// Called for SIGINT, SIGTERM and SIGABRT: logs the number and sets the exit request.
///
/// abort() runs it on the aborting thread, whatever is blocked and whatever that thread holds. Then nothing
/// is logged the usual way; the line goes to standard error with a single write.
void signal_handler(std::int32_t number);

namespace vlmProd {

/// First thing in main: threads made later inherit the mask.
void blockStopSignals();
/// Installs signal_handler for signals 2, 15, 6 and 9, in this order. Asking for 9 is without effect on
/// Linux.
void installSignalHandlers();
bool exitRequested();
/// Main thread only: sleeps on the steady clock, ended early by a stop signal.
void waitForStopSignal(std::chrono::seconds limit);

}  // namespace vlmProd
