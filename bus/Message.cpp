#include "bus/Message.h"

namespace vlmProd {

unsigned int Message::size() const {
    return static_cast<unsigned int>(kyo::Json::FastWriter().write(m_payload).size());
}

}  // namespace vlmProd
