/// Writes the binary seeds: tests/fuzz/seeds is its argument. The other seeds are texts, kept as they are.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "Fuzzing.h"
#include "qdr/services/airbag/datatypes.h"
#include "qdr/services/chassis/datatypes.h"
#include "qdr/services/gnss/datatypes.h"
#include "qdr/services/obdinformation/datatypes.h"
#include "someip/ServiceDiscovery.h"

namespace {

using namespace someip;
using Content = std::vector<std::uint8_t>;

std::filesystem::path folder;

void keep(const std::string& name, const Content& content) {
    std::filesystem::create_directories((folder / name).parent_path());
    std::ofstream(folder / name, std::ios::binary)
        .write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
}

void append(Content& out, unsigned op, const Content& bytes) {
    out.push_back(static_cast<std::uint8_t>(op));
    out.push_back(static_cast<std::uint8_t>(bytes.size() >> 8));
    out.push_back(static_cast<std::uint8_t>(bytes.size()));
    out.insert(out.end(), bytes.begin(), bytes.end());
}

Content notification(std::size_t size, bool segmented) {
    Header header;
    header.service = 0x1234;
    header.method = 0x8001;
    header.session = 7;
    header.interfaceVersion = 1;
    header.type |= segmented ? kSegmentFlag : 0;
    header.length = static_cast<std::uint32_t>(kLengthCovers + size);
    Content bytes(kHeaderSize + size, 0x5A);
    writeHeader(header, bytes.data());
    return bytes;
}

void keepHeaders() {
    Content two = notification(12, false);
    const Content second = notification(0, false);
    two.insert(two.end(), second.begin(), second.end());
    Content stream{0};
    append(stream, 0, two);
    append(stream, 4, two);  // from the wrong peer
    append(stream, 0, Content(two.begin(), two.begin() + 10));
    keep("someip_header/notifications", stream);

    Content segments{0};
    Content payload(40, 1);
    for (const std::uint32_t offset : {16u, 0u, 32u}) {
        Content bytes = notification(kSegmentHeaderSize + 16, true);
        SegmentHeader{offset, offset != 32}.write(bytes.data() + kHeaderSize);
        append(segments, 0, bytes);
    }
    segments.insert(segments.end(), {3, 2, 0});  // 512 ms
    keep("someip_header/segments", segments);
    keep("someip_header/cut-and-join", {7, 0x20, 0x00, 3, 0, 1, 4, 2, 3, 5, 1, 2, 3});
}

struct Nobody : SdObserver {
    void serviceUp(const RemoteService&) override {}
    void serviceDown(const RemoteService&, const char*) override {}
    void subscriptionChanged(const EventgroupKey&, SubscriptionState) override {}
    void multicastGiven(const EventgroupKey&, const Endpoint&) override {}
    bool admitSubscriber(const EventgroupKey&, const Endpoint&) override { return true; }
    void subscriberAdded(const EventgroupKey&, const Endpoint&) override {}
    void subscriberRemoved(const EventgroupKey&, const Endpoint&) override {}
    void peerRebooted(const Endpoint&) override {}
};

/// What a vehicle and a subscriber at the other end would say.
void keepDiscovery() {
    Nobody nobody;
    Clock::time_point now{std::chrono::hours(1)};
    const Network network{0x7F000000, 0xFF000000};
    ServiceDiscovery peer({}, {0x7F000002, 40000}, network, nobody, 2);
    peer.server().offer({0x1001, 1, 1}, 0, {1}, now);
    peer.server().offer({0x1002, 1, 1}, 0, {1}, now);
    peer.client().wantEventgroup({{0x2001, 1, 1}, 1}, now);
    Content stream;
    const auto say = [&] {
        for (const auto& datagram : peer.outbox().take()) {
            append(stream, datagram.to ? 0x00 : 0x10, datagram.bytes);
        }
    };
    now += std::chrono::milliseconds(40);
    peer.onTime(now);
    say();
    keep("someip_discovery/offers", stream);
    SdEntry entry;
    entry.type = SdEntryType::Offer;
    entry.service = 0x2001;
    entry.instance = 1;
    entry.major = 1;
    entry.ttl = 3;
    entry.unicast = {{0x7F000001, 50000}};
    peer.client().onOffer(entry, {0x7F000001, 30490}, now);
    entry.type = SdEntryType::Subscribe;
    entry.service = 0x1001;
    entry.eventgroup = 1;
    peer.server().onSubscribe(entry, {0x7F000001, 30490}, now);
    say();
    stream.insert(stream.end(), {2, 0x0B, 0xB8});  // 3 s
    peer.shutdown();
    say();
    keep("someip_discovery/subscribe-and-end", stream);
}

template <typename DT>
void keepSamples(const std::string& name, std::uint8_t decoder, const std::vector<DT>& samples) {
    Content payload;
    ac::com::encodeSamples(samples, payload);
    payload.insert(payload.begin(), decoder);
    keep("someip_structure/" + name, payload);
}

void keepStructures() {
    using namespace qdr::services;
    gnss::datatypes::DT_positions_struct position;
    position.type = gnss::datatypes::PositionType{};
    position.latitude = 48.1;
    position.messageCounter = 5;
    keepSamples("positions", 0, std::vector{position, position});
    chassis::datatypes::DT_axes_struct axis;
    axis.wheelSpeedLeftPhysicalValue = 50.5F;
    axis.position = chassis::datatypes::AxisPosition{};
    keepSamples("axes", 2, std::vector{axis, {}});
    keepSamples("crash", 4, std::vector<airbag::datatypes::DT_crashInfo_struct>(1));
    obdinformation::datatypes::DT_settings_struct settings;
    settings.calibrationIdentification = "calibration";
    keepSamples("settings", 8, std::vector{settings});
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 2) {
        std::cerr << "usage: fuzz_seeds FOLDER\n";
        return 1;
    }
    folder = arguments[1];
    keepHeaders();
    keepDiscovery();
    keepStructures();
    return 0;
}
