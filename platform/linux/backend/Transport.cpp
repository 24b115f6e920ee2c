#include "backend/Transport.h"

#include <utility>

namespace kyo::orx {

Json::Value masterControl(const std::string& ticket, const std::vector<std::string>& permitted, int control,
                          int result) {
    Json::Value message(Json::objectValue);
    message["eventTicket"] = ticket;
    Json::Value& types = message["permittedDataType"] = Json::Value(Json::arrayValue);
    for (const std::string& type : permitted) {
        types.append(type);
    }
    message["backendChannelControl"] = control;
    message["dataDeliveryResult"] = result;
    return message;
}

void Transport::deliverMasterControl(Json::Value message, std::chrono::milliseconds delay) {
    m_callbacks.post(
        [this, message = std::move(message)] {
            if (m_onMasterControl) {
                m_onMasterControl(message);
            }
        },
        delay);
}

void Transport::deliverConfigResponse(Json::Value answer) {
    m_callbacks.post([this, answer = std::move(answer)] {
        if (m_onConfigResponse) {
            m_onConfigResponse(answer);
        }
    });
}

}  // namespace kyo::orx
