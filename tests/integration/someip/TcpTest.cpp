/// Events over TCP, with real connections.
#include <sys/resource.h>

#include "Bench.h"
#include "someip/SystemAddress.h"

using namespace vlmTest;

namespace {

machine::SomeIpSettings serverSettings() {
    auto settings = settingsFor(2);
    settings.eventsOverTcp = true;
    settings.discovery.cyclicOfferMs = 200;
    return settings;
}

using OverTcp = ClientAndServer;

}  // namespace

TEST_F(OverTcp, SamplesArriveInOrderLargeOnesWholeAndAfterEitherSideWasKilled) {
    const auto segments = someip::counters().tpSegments.value();
    const auto strangers = someip::counters().notSubscribed.value();
    connect(serverSettings());
    ASSERT_NO_FATAL_FAILURE(expectSamples());
    EXPECT_EQ(someip::counters().tpSegments.value(), segments);
    EXPECT_EQ(someip::counters().notSubscribed.value(), strangers) << "magic cookies are no events";

    ASSERT_NO_FATAL_FAILURE(killBothSides(serverSettings()));
    client.readings->Unsubscribe();
    ASSERT_TRUE(eventually([&] { return server.readings.subscribers() == 0; }));
    EXPECT_TRUE(log.waitFor("has disconnected")) << "a connection that is not needed is closed";
}

TEST_F(OverTcp, AClientThatDoesNotReadIsDisconnectedAndTheOthersAreServed) {
    connect(serverSettings());
    PlainDevice stalled(3);
    ASSERT_TRUE(stalled.await(someip::SdEntryType::Offer));
    const auto connection = stalled.subscribeOverTcp(*stalled.found.over(someip::Protocol::Tcp));
    ASSERT_TRUE(eventually([&] { return server.readings.subscribers() == 2; }));
    auto large = fullReading();
    large.text = std::string(500'000, 'x');
    std::size_t sent = 0;
    ASSERT_TRUE(eventually([&] { return server.readings.subscribers() == 1; },
                           [&] {
                               server.readings.Send({large});
                               ++sent;
                           }));
    EXPECT_TRUE(eventually([&] { return client.count() == sent; })) << client.count() << " of " << sent;
}

TEST_F(OverTcp, AClientWaitsForADescriptorAndOneThatStartsAnewLosesItsOldConnectionAlone) {
    ASSERT_TRUE(serverSide.start(serverSettings(), true));
    ASSERT_TRUE(server.base.OfferService());
    PlainDevice device(3);
    ASSERT_TRUE(device.await(someip::SdEntryType::Offer));
    const auto offered = *device.found.over(someip::Protocol::Tcp);
    const int waiting = ::socket(someip::familyOf(addressOf(3)), SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int lowestFree = ::dup(waiting);
    ::close(lowestFree);
    rlimit usual{};
    ::getrlimit(RLIMIT_NOFILE, &usual);
    const rlimit noneLeft{static_cast<rlim_t>(lowestFree), usual.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &noneLeft);
    const someip::SystemAddress to(offered);
    const int connected = ::connect(waiting, to.get(), to.size());
    const bool waits = log.waitFor("has to wait: Too many open files");
    ::setrlimit(RLIMIT_NOFILE, &usual);
    EXPECT_EQ(connected, 0) << "the system answers for the server";
    EXPECT_TRUE(waits);
    EXPECT_TRUE(log.waitFor("has connected"));
    ::close(waiting);
    EXPECT_TRUE(log.waitFor("has disconnected"));

    const auto old = device.subscribeOverTcp(offered);
    ASSERT_TRUE(device.await(someip::SdEntryType::SubscribeAck));
    device.outbox = {};  // its numbers restart
    const auto fresh = device.subscribeOverTcp(offered);
    std::uint8_t piece[100];
    ASSERT_TRUE(eventually([&] { return old->receive(piece) == 0; }));
    server.readings.Send({numbered(1)});
    EXPECT_TRUE(eventually([&] { return fresh->receive(piece) > 0; }));
}

TEST_F(OverTcp, AStreamThatIsNoSequenceOfMessagesEndsAndThePauseGrows) {
    PlainDevice device(2);
    std::string error;
    const auto listener = someip::TcpListener::open({addressOf(2), 0, someip::Protocol::Tcp}, error);
    ASSERT_NE(listener, nullptr) << error;
    const auto offer = [&](std::uint32_t ttl = 3) {
        auto entry = device.offer(ttl);
        entry.unicast = {listener->endpoint()};
        device.sendDiscovery(entry);
    };
    ASSERT_TRUE(clientSide.start(settingsFor(1), false));
    client.subscribe();
    offer();
    const auto broken = someip::counters().tcpBroken.value();
    const auto lost = someip::counters().tcpLost.value();
    std::vector<std::chrono::steady_clock::time_point> at;
    for (std::uint64_t round = 1; round <= 3; ++round) {
        offer();
        std::shared_ptr<someip::TcpSocket> connection;
        ASSERT_TRUE(eventually([&] { return (connection = listener->accept()) != nullptr; }));
        at.push_back(std::chrono::steady_clock::now());
        ASSERT_TRUE(device.await(someip::SdEntryType::Subscribe));
        EXPECT_THAT(device.found.unicast, ElementsAre(connection->remote()));
        device.answer(3);
        auto good = device.notification(static_cast<int>(round), 1);
        // Two messages, the second one in two pieces.
        const std::size_t half = good.size() / 2;
        connection->send(good);
        connection->send(std::span(good).first(half));
        connection->send(std::span(good).subspan(half));
        ASSERT_TRUE(eventually([&] { return client.count() == 2 * round; }));
        connection->send(std::vector<std::uint8_t>(64, 0));
        ASSERT_TRUE(eventually([&] {
            return someip::counters().tcpBroken.value() == broken + round &&
                   someip::counters().tcpLost.value() == lost + round;
        }));
        ASSERT_TRUE(device.await(someip::SdEntryType::Subscribe, true)) << "it ends with its connection";
    }
    EXPECT_GT(at[2] - at[1], 900ms);
    offer(0);
    EXPECT_TRUE(log.waitFor("its offer was stopped"));
}

TEST_F(OverTcp, AServerThatDoesNotAnswerIsTriedAgain) {
    const int full = ::socket(someip::familyOf(addressOf(2)), SOCK_STREAM | SOCK_CLOEXEC, 0);
    const someip::SystemAddress at({addressOf(2), 0});
    ASSERT_EQ(::bind(full, at.get(), at.size()), 0);
    ASSERT_EQ(::listen(full, 0), 0);
    const auto endpoint = someip::boundEndpoint(full, someip::Protocol::Tcp);
    const auto only = connectOverTcp(addressOf(3), endpoint);  // takes the place
    ASSERT_TRUE(clientSide.start(settingsFor(1), false));
    client.subscribe();
    PlainDevice device(2);
    auto offer = device.offer(60);
    offer.unicast = {endpoint};
    device.sendDiscovery(offer);
    EXPECT_TRUE(log.waitFor("No connection to " + someip::toText(endpoint) + ": Connection timed out"));
    ::close(full);
    EXPECT_TRUE(log.waitFor("No connection to " + someip::toText(endpoint) + ": Connection refused"));
}

TEST_F(OverTcp, AProcessWithoutServicesTakesNoClients) {
    auto settings = settingsFor(1);
    settings.eventPort = static_cast<std::uint16_t>(discoveryPort() + 2);
    for (const bool offers : {false, true}) {
        ASSERT_TRUE(clientSide.start(settings, offers));
        connectOverTcp(addressOf(3), {addressOf(1), settings.eventPort, someip::Protocol::Tcp},
                       offers ? 0 : ECONNREFUSED);
        clientSide.stop();
    }
}
