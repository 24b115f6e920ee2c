#pragma once

#include <string_view>

namespace kyo {

/// Sends a notification, such as "READY=1", to the socket that NOTIFY_SOCKET names, as sd_notify(3) does.
/// Returns a positive number when it was sent, 0 without a service manager, and a negative errno on failure.
///
/// The protocol is stable and documented for programs without libsystemd, which would load five libraries
/// (0.8 MiB of resident memory) for this.
int notifyServiceManager(std::string_view notification) noexcept;

}  // namespace kyo
