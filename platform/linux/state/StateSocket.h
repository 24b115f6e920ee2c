#pragma once
#include <chrono>
#include <string>

#include "kyo/Json.h"

namespace ara::stm {

/// One connection to a process's state socket.
class StateSocket {
  public:
    StateSocket() = default;
    ~StateSocket();
    StateSocket(const StateSocket&) = delete;
    StateSocket& operator=(const StateSocket&) = delete;

    /// Returns false with a reason and a remedy when no process serves the socket.
    bool connect(const std::string& path, std::string& error);
    /// Sends the request and waits for its answer, a JSON object. Returns false with a reason on failure,
    /// also when the answer has an "error" member. A failure closes the connection.
    bool ask(const kyo::Json::Value& request, kyo::Json::Value& answer, std::string& error,
             std::chrono::milliseconds limit = std::chrono::seconds(15));
    bool connected() const { return m_socket >= 0; }

  private:
    void close();

    int m_socket = -1;
    std::string m_in;
};

}  // namespace ara::stm
