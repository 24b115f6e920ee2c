#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace ara::stm {

using ComponentState = std::string;

enum class ComponentClientReturnType : std::int32_t { kSuccess = 0, kGeneralError = 1, kInvalid = 2 };

/// Receives the state manager's requests for one component until it is destroyed. The destructor waits for a
/// running callback.
class ComponentClient {
  public:
    virtual ~ComponentClient() = default;
    /// Answers one request, with its id and its state. Any thread, also from inside the callback. Returns
    /// kGeneralError when the requester is gone, kInvalid when no such request is open.
    virtual ComponentClientReturnType ConfirmComponentState(std::uint32_t requestId,
                                                            const ComponentState& state,
                                                            ComponentClientReturnType result) const = 0;
};

/// Called on the platform's thread for each requested state.
using ComponentStateCallback =
    std::function<void(const ComponentClient&, std::uint32_t, const ComponentState&)>;

/// Throws std::system_error when the state manager cannot be reached.
std::unique_ptr<ComponentClient> createComponentClient(const std::string& componentName,
                                                       ComponentStateCallback callback);

}  // namespace ara::stm
