#pragma once
#include <chrono>
#include <string>

#include "kyo/Json.h"

namespace tools {

/// One connection to a process's state socket: a request, an answer.
class StateSocket {
  public:
    StateSocket() = default;
    ~StateSocket();
    StateSocket(const StateSocket&) = delete;
    StateSocket& operator=(const StateSocket&) = delete;

    /// False with a reason, and what to do about it, when nobody answers there.
    bool connect(const std::string& path, std::string& error);
    /// Sends the request and waits for its answer, a JSON object; an answer with an "error" member is a
    /// failure with that text. After any failure the connection is closed.
    bool ask(const kyo::Json::Value& request, kyo::Json::Value& answer, std::string& error,
             std::chrono::milliseconds limit = std::chrono::seconds(15));
    bool connected() const { return m_socket >= 0; }

  private:
    void close();

    int m_socket = -1;
    std::string m_in;
};

}  // namespace tools
