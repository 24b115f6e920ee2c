#pragma once
#include <cstdint>

#include "kyo/Json.h"

namespace vlmProd {

/// A message of the bus: a topic and a payload.
class Message {
  public:
    enum MessageTopicType : std::int32_t {
        OnEvent = 0,  ///< the clock's tick; its payload is null
    };

    Message() = default;
    Message(MessageTopicType topic, kyo::Json::Value& payload) : m_topic(topic), m_payload(payload) {}

    void setTopic(MessageTopicType topic) { m_topic = topic; }
    void setPayload(const kyo::Json::Value& payload) { m_payload = payload; }
    MessageTopicType getTopic() const { return m_topic; }
    kyo::Json::Value getPayload() const { return m_payload; }
    /// The length of the payload's compact JSON text.
    unsigned int size() const;

  private:
    MessageTopicType m_topic = OnEvent;
    kyo::Json::Value m_payload;
};

}  // namespace vlmProd
