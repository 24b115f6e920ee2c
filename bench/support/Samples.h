#pragma once
/// The samples that the benchmarks send, as structures and as datagrams.
#include <cstdint>
#include <string_view>
#include <vector>

#include "ac/com/types.h"
#include "qdr/services/airbag/datatypes.h"
#include "qdr/services/airbag/interface.h"
#include "qdr/services/gnss/datatypes.h"
#include "qdr/services/gnss/interface.h"
#include "qdr/services/routebasedconsumption/datatypes.h"
#include "someip/Message.h"
#include "someip/Samples.h"

namespace vlmBench {

using Position = qdr::services::gnss::datatypes::DT_positions_struct;
using AirbagNotification = qdr::services::airbag::datatypes::DT_notifications_struct;
using Consumption = qdr::services::routebasedconsumption::datatypes::DT_consumptionValues_struct;

/// A fused position with all 37 fields of its writer; the values have as many characters as real ones.
Position fullPosition();
/// A sample with one member, its kind.
AirbagNotification airbagNotification();
/// One point of a learnt consumption curve.
Consumption consumption();

/// One notification with one sample, including the header.
template <class DT>
std::vector<std::uint8_t> datagramWith(const ac::com::ServiceInterface& service,
                                       const ac::com::EventInterface& event, const DT& sample) {
    std::vector<std::uint8_t> bytes(someip::kHeaderSize);
    someip::appendSamples(std::vector<DT>{sample}, bytes);
    someip::Header header;
    header.service = service.serviceId;
    header.method = event.eventId;
    header.session = 1;
    header.interfaceVersion = service.majorVersion;
    header.length = static_cast<std::uint32_t>(someip::kLengthCovers + bytes.size() - someip::kHeaderSize);
    someip::writeHeader(header, bytes.data());
    return bytes;
}

}  // namespace vlmBench
