#pragma once
#include <string>

namespace ac::com::runtime {

/// Starts this process's middleware and shuts it down. One at a time.
///
/// The constructor does not throw when the network is missing (no address, port taken): the middleware logs
/// that once and retries in the background. The destructor sends stop-subscribe and stop-offer, stops all
/// threads of the middleware and waits for a running receive handler; no handler is called afterwards.
class Component_singleton {
  public:
    /// `providesServices` is true for a process that will offer services. A non-empty `configuration`, in the
    /// platform's format, replaces the platform's own settings of the middleware.
    Component_singleton(bool providesServices, const std::string& configuration);
    ~Component_singleton();
    Component_singleton(const Component_singleton&) = delete;
    Component_singleton& operator=(const Component_singleton&) = delete;
};

}  // namespace ac::com::runtime
