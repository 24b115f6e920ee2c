/// What the backend link makes of master-control messages, and the envelope that it sends.
#include "config/ConfigControlPanel.h"
#include "examples/platform/ScriptedOrxClient.h"
#include "report/VlmServer.h"
#include "tests/support/Test.h"

namespace {

using namespace vlmTest;
using namespace vlmProd;

struct BackendLink : Test {
    BackendLink() {
        m_server.registerDataDeliveryCallback([statuses = m_statuses](orxStatus status) {
            statuses->add({status, std::this_thread::get_id()});
        });
        m_server.startServer();
    }

    kyo::Json::Value sent(kyo::Json::Value value) {
        EXPECT_EQ(m_server.sendToOrx(value), 0);
        EXPECT_FALSE(value.isMember("catalogId")) << "it is part of the envelope now";
        return ScriptedClient::current().envelopes().back();
    }

    LogCapture m_log;
    /// Shared with the threads that first calls are made on, which a test need not wait for.
    using Statuses = SharedList<std::pair<orxStatus, std::thread::id>>;
    const std::shared_ptr<Statuses> m_statuses = std::make_shared<Statuses>();
    const std::shared_ptr<ConfigControlPanel> m_panel =
        std::make_shared<ConfigControlPanel>([](auto&&...) { return std::string(); });
    VlmServer m_server{"Catalog 1", {"TypeA"}, m_panel};
};

TEST_F(BackendLink, StartsSendingOnAThreadOfItsOwnAndAsksForTheConfigurationOnce) {
    EXPECT_TRUE(m_server.isBlocked());
    kyo::Json::Value early = report("r");
    EXPECT_EQ(m_server.sendToOrx(early), VlmServer::kNothingPermitted);
    EXPECT_EQ(early, report("r"));
    for (const auto& closed : {control(0, 1), control(1, 0)}) {
        m_server.handleMasterControlCallBack(closed);
        EXPECT_TRUE(m_server.isBlocked());
    }
    EXPECT_EQ(ScriptedClient::current().requests(), 0);
    EXPECT_FALSE(m_panel->isRetrying()) << "before the first request";
    const auto requested = counted("config.requests");
    ScriptedClient::current().answerSends([] { return 5; });
    m_server.handleMasterControlCallBack(control());
    EXPECT_TRUE(m_log.has(3, "The configuration request could not be sent, error code = 5"));
    EXPECT_EQ(counted("config.requests"), requested);
    EXPECT_FALSE(m_server.isBlocked());
    m_server.handleMasterControlCallBack(control(0, 1));
    m_server.handleMasterControlCallBack(control());
    EXPECT_EQ(ScriptedClient::current().requests(), 1);
    EXPECT_TRUE(m_panel->isRetrying());
    ASSERT_TRUE(eventually([this] { return m_statuses->size() == 2; }));
    EXPECT_THAT(m_statuses->all(), Each(Pair(orxStatus::SendNext, Ne(std::this_thread::get_id()))));
}

TEST_F(BackendLink, NeverLooksOpenBetweenTwoMessagesThatCloseIt) {
    kyo::Log::setReportingLevel(0);  // which leaves little but the instant in question
    std::atomic<bool> done{false};
    std::atomic<int> seenOpen{0};
    Together observers(2, [&](int) {
        while (!done) {
            seenOpen += !m_server.isBlocked() ? 1 : 0;
        }
    });
    const auto undelivered = control(1, 0);
    const auto closed = control(0, 3);
    for (int i = 0; i < 40000; ++i) {
        m_server.handleMasterControlCallBack(undelivered);
        m_server.handleMasterControlCallBack(closed);
    }
    done = true;
    observers.join();
    EXPECT_EQ(seenOpen, 0);
}

TEST_F(BackendLink, RefusesAMessageWithAWrongTypeWholeAndNamesTheField) {
    m_server.handleMasterControlCallBack(control());
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"dataDeliveryResult", "\"0\"",
         "dataDeliveryResult: a number from -2147483648 to 2147483647 is expected, found a text (\"0\")"},
        {"backendChannelControl", "4294967296",
         "backendChannelControl: a number from -2147483648 to 2147483647 is expected, found a number "
         "(4294967296)"},
        {"eventTicket", "[]", "eventTicket: a text is expected, found an array"},
        {"permittedDataType", "\"TypeA\"",
         "permittedDataType: an array of texts is expected, found a text (\"TypeA\")"},
        {"permittedDataType", "[\"TypeB\", {}]", "permittedDataType[1]: a text is expected, found an object"},
    };
    for (const auto& [key, json, complaint] : cases) {
        kyo::Json::Value message = control(2, 1, {"TypeB"}, "other");
        ASSERT_TRUE(kyo::Json::Reader().parse(json, message[key]));
        m_log.clear();
        m_server.handleMasterControlCallBack(message);
        EXPECT_THAT(m_log.messages(3), ElementsAre(std::string("Master control refused, ") + complaint));
        EXPECT_FALSE(m_server.isBlocked());
    }
    m_server.handleMasterControlCallBack(kyo::Json::Value("text"));
    EXPECT_TRUE(
        m_log.has(3, "Master control refused, the message: an object is expected, found a text (\"text\")"));
    EXPECT_EQ(sent(report("r"))["eventTicket"], "ticket");
    m_server.handleMasterControlCallBack(valueOf(R"({"permittedDataType":["TypeA"]})"));
    EXPECT_FALSE(m_server.isBlocked()) << "numbers that are absent are 0";
}

TEST_F(BackendLink, PutsTheReportIntoAnEnvelopeWithTheNewestTicketAndAnIdentifierOfItsOwn) {
    m_server.handleMasterControlCallBack(control(0, 0, {"TypeA"}, "older"));
    m_server.handleMasterControlCallBack(control(0, 0, {"TypeA"}, "newest"));
    kyo::Json::Value envelope = sent(report("Trip", 3));
    EXPECT_THAT(envelope["messageId"].asString(),
                MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-8[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
    EXPECT_TRUE(envelope["timestamp"].isIntegral());
    EXPECT_LT(envelope["timestamp"].asInt64(), 100'000'000'000) << "whole seconds";
    kyo::Json::Value expected = report("Trip", 3);
    expected.removeMember("catalogId");
    EXPECT_EQ(envelope["orxClientDataReport"].asString(), compactText(expected));
    for (const char* const checked : {"messageId", "timestamp", "orxClientDataReport"}) {
        envelope.removeMember(checked);
    }
    EXPECT_EQ(compactText(envelope),
              R"({"correlationTag":"VLMCorrelTag","deliveryMode":0,"elementId":1,"eventId":"VLM.App.Trip",)"
              R"("eventTicket":"newest","isCallbackAbilityRequested":true,"timeToLive":7200,"timezone":20,)"
              R"("version":"1.0.0"})");
    kyo::Json::Value otherCatalog = report("a", 1);
    otherCatalog["catalogId"] = "catalog-2";
    const auto id = sent(report("a", 1))["messageId"];
    EXPECT_EQ(sent(report("a", 1))["messageId"], id);
    for (const auto& other :
         {report("b", 1), report("a", 2), report("a", 1, "1700000000001"), otherCatalog}) {
        EXPECT_NE(sent(other)["messageId"], id) << compactText(other);
    }
    EXPECT_EQ(m_server.getUniqueMessageId("ab", "c"), "3211c318-92a0-8400-9e79-79a4efaf6bf7");
    EXPECT_NE(m_server.getUniqueMessageId("ab", "c"), m_server.getUniqueMessageId("a", "bc"));
}

}  // namespace
