#include "backend/Transport.h"

#include <utility>

#include "kyo/Status.h"

namespace kyo::orx {

namespace {

constexpr int kMostAnswersWaiting = 8;

}  // namespace

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

void Transport::deliverMasterControl(Json::Value message) {
    m_callbacks.post([this, message = std::move(message)]() mutable {
        if (m_onMasterControl) {
            m_onMasterControl(std::move(message));
        }
    });
}

void Transport::deliverOwnMasterControl(Json::Value message, std::chrono::milliseconds delay,
                                        std::function<bool()> isValid) {
    m_callbacks.postDuty(
        [this, message = std::move(message), isValid = std::move(isValid)]() mutable {
            if (m_onMasterControl && (!isValid || isValid())) {
                m_onMasterControl(std::move(message));
            }
        },
        delay);
}

bool Transport::deliverConfigResponse(Json::Value answer) {
    static Counter& dropped = Status::counter("orx.callbacks.dropped");
    if (m_answersWaiting >= kMostAnswersWaiting) {
        dropped.add();
        return false;
    }
    ++m_answersWaiting;
    const bool isPosted = m_callbacks.post([this, answer = std::move(answer)]() mutable {
        --m_answersWaiting;
        if (m_onConfigResponse) {
            m_onConfigResponse(std::move(answer));
        }
    });
    if (!isPosted) {
        --m_answersWaiting;
    }
    return isPosted;
}

}  // namespace kyo::orx
