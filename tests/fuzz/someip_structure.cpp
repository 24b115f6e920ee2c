/// Payloads through the generated readers of several services. Decoded samples are encoded again; both must
/// be equal.
#include "Fuzzing.h"
#include "qdr/services/airbag/datatypes.h"
#include "qdr/services/chassis/datatypes.h"
#include "qdr/services/gnss/datatypes.h"
#include "qdr/services/obdinformation/datatypes.h"
#include "qdr/services/powertrain/datatypes.h"
#include "qdr/services/temperature/datatypes.h"
#include "someip/Samples.h"

namespace {

using namespace qdr::services;
using namespace vlmFuzz;

template <typename DT>
void decode(Bytes payload) {
    std::vector<DT> samples;
    someip::DecodeReport report;
    const bool good = someip::decodeSamples(payload, samples, report);
    require(good == (report.result == someip::DecodeResult::Good), "result and report agree");
    require(good == report.error.empty(), "what is refused has a reason");
    if (!good) {
        require(samples.empty(), "nothing is left of what was refused");
        return;
    }
    require(samples.size() <= someip::kMaxSamplesPerMessage, "the number of samples is bounded");
    std::vector<std::uint8_t> once;
    someip::encodeSamples(samples, once);
    std::vector<DT> again;
    require(someip::decodeSamples(Bytes(once), again, report) && report.doubledMembers == 0,
            "what was encoded can be decoded");
    std::vector<std::uint8_t> twice;
    someip::encodeSamples(again, twice);
    require(once == twice, "encoding loses nothing");
}

constexpr std::array kDecoders{
    &decode<gnss::datatypes::DT_positions_struct>,
    &decode<gnss::datatypes::DT_positionsQuality_struct>,
    &decode<chassis::datatypes::DT_axes_struct>,
    &decode<chassis::datatypes::DT_velocityInfo_struct>,
    &decode<airbag::datatypes::DT_crashInfo_struct>,
    &decode<airbag::datatypes::DT_notifications_struct>,
    &decode<temperature::datatypes::DT_temperatures_struct>,
    &decode<powertrain::datatypes::DT_status_struct>,
    &decode<obdinformation::datatypes::DT_settings_struct>,
};

}  // namespace

void vlmFuzz::run(Input in) {
    const auto decoder = kDecoders[in.byte() % kDecoders.size()];
    decoder(in.rest());
}
