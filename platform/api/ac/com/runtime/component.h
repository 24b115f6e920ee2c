#pragma once
#include <string>

namespace ac::com::runtime {

/// Starts the middleware of this process and ends it. One at a time.
///
/// The constructor does not throw when the network is not there yet (no address, port taken): that is
/// logged once, and the middleware goes on trying in the background. The destructor says good-bye on the
/// wire (stop-subscribe, stop-offer), stops all threads of the middleware and waits for a receive handler
/// that is under way; no handler is called afterwards.
class Component_singleton {
  public:
    /// `providesServices` is true for a process that will offer services; `configuration` replaces the platform's
    /// own settings of the middleware, in the platform's format, unless it is empty.
    Component_singleton(bool providesServices, const std::string& configuration);
    ~Component_singleton();
    Component_singleton(const Component_singleton&) = delete;
    Component_singleton& operator=(const Component_singleton&) = delete;
};

}  // namespace ac::com::runtime
