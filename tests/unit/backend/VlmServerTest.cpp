/// What the backend link makes of master-control messages, and the envelope that it sends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ScriptedOrxClient.h"
#include "report/VlmServer.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vlmProd::orxStatus;
using vlmProd::VlmServer;
using vlmTest::control;
using vlmTest::eventually;
using vlmTest::LogCapture;
using vlmTest::report;
using vlmTest::ScriptedClient;

class BackendLink : public testing::Test {
  protected:
    BackendLink() {
        m_server.registerDataDeliveryCallback([calls = m_calls](orxStatus status) {
            const std::lock_guard<std::mutex> lock(calls->mutex);
            calls->statuses.push_back(static_cast<int>(status));
            calls->threads.push_back(std::this_thread::get_id());
        });
        m_server.startServer();
    }

    /// Shared with the thread that the first call is made on, which a test need not wait for.
    struct Calls {
        std::mutex mutex;
        std::vector<int> statuses;
        std::vector<std::thread::id> threads;
    };
    std::vector<int> statuses() {
        const std::lock_guard<std::mutex> lock(m_calls->mutex);
        return m_calls->statuses;
    }
    std::thread::id threadOf(std::size_t call) {
        const std::lock_guard<std::mutex> lock(m_calls->mutex);
        return m_calls->threads.at(call);
    }
    /// Opens the channel for the first time, and waits for the thread that this starts.
    void open() {
        m_server.handleMasterControlCallBack(control());
        ASSERT_TRUE(eventually([this] { return statuses().size() == 1; }));
        const std::lock_guard<std::mutex> lock(m_calls->mutex);
        m_calls->statuses.clear();
    }
    std::int32_t send(kyo::Json::Value value = report("r")) { return m_server.sendToOrx(value); }
    static kyo::Json::Value lastEnvelope() { return ScriptedClient::current().envelopes().back(); }

    LogCapture m_log;
    const std::shared_ptr<Calls> m_calls = std::make_shared<Calls>();
    VlmServer m_server{"Catalog 1", {"TypeA"}};
};

TEST_F(BackendLink, is_blocked_until_a_message_opens_the_channel) {
    EXPECT_TRUE(m_server.isBlocked());
    EXPECT_EQ(send(), VlmServer::kNothingPermitted);
    EXPECT_EQ(ScriptedClient::current().sends(), 0u);
    m_server.handleMasterControlCallBack(control(0, 1));
    EXPECT_TRUE(m_server.isBlocked());
    m_server.handleMasterControlCallBack(control(1, 0));
    EXPECT_TRUE(m_server.isBlocked());
    EXPECT_TRUE(statuses().empty());
    m_server.handleMasterControlCallBack(control());
    EXPECT_FALSE(m_server.isBlocked());
}

TEST_F(BackendLink, acts_on_an_opening_message_by_how_the_last_send_went) {
    m_server.handleMasterControlCallBack(control());
    ASSERT_TRUE(eventually([this] { return statuses().size() == 1; }));
    EXPECT_EQ(statuses()[0], 0);
    EXPECT_NE(threadOf(0), std::this_thread::get_id()) << "the first one has a thread of its own";

    ASSERT_EQ(send(), 0);
    m_server.handleMasterControlCallBack(control());
    ASSERT_EQ(statuses(), (std::vector<int>{0, 0}));
    EXPECT_EQ(threadOf(1), std::this_thread::get_id());

    m_server.handleMasterControlCallBack(control(0, 1));  // closed: what was sent counts as failed
    m_server.handleMasterControlCallBack(control());
    EXPECT_EQ(statuses(), (std::vector<int>{0, 0, 1}));

    ASSERT_EQ(send(), 0);
    m_server.handleMasterControlCallBack(control(2));
    m_server.handleMasterControlCallBack(control());
    EXPECT_EQ(statuses(), (std::vector<int>{0, 0, 1, 2, 1}));

    ScriptedClient::current().answerSends([](const kyo::Json::Value&) { return -5; });
    EXPECT_EQ(send(), -5);
    m_server.handleMasterControlCallBack(control());
    EXPECT_EQ(statuses().back(), 1);
}

TEST_F(BackendLink, treats_a_message_that_permits_nothing_as_closing) {
    open();
    ASSERT_EQ(send(), 0);
    m_server.handleMasterControlCallBack(control(0, 0, {}));
    EXPECT_TRUE(statuses().empty());
    kyo::Json::Value untouched = report("r");
    EXPECT_EQ(m_server.sendToOrx(untouched), VlmServer::kNothingPermitted);
    EXPECT_EQ(untouched, report("r"));
    m_server.handleMasterControlCallBack(control());
    EXPECT_EQ(statuses(), (std::vector<int>{1}));
}

TEST_F(BackendLink, asks_for_the_configuration_once_and_only_when_the_channel_opens) {
    const auto armed = [this] {
        int count = 0;
        for (const auto& line : m_log.lines()) {
            count += line.signature.find("Timer::setInterval") != std::string::npos ? 1 : 0;
        }
        return count;
    };
    m_server.handleMasterControlCallBack(control(0, 1));
    EXPECT_EQ(ScriptedClient::current().requests(), 0);
    m_server.handleMasterControlCallBack(control());
    m_server.handleMasterControlCallBack(control(0, 1));
    m_server.handleMasterControlCallBack(control());
    EXPECT_EQ(ScriptedClient::current().requests(), 1);
    EXPECT_EQ(armed(), 1);
}

TEST_F(BackendLink, refuses_a_message_with_a_wrong_type_whole_and_names_the_field) {
    open();
    struct Case {
        const char* key;
        const char* json;
        const char* complaint;
    };
    const Case cases[] = {
        {"dataDeliveryResult", "[1]", "\"dataDeliveryResult\": a 32-bit number is expected, not an array"},
        {"dataDeliveryResult", "\"0\"", "\"dataDeliveryResult\": a 32-bit number is expected, not a text"},
        {"backendChannelControl", "{}",
         "\"backendChannelControl\": a 32-bit number is expected, not an object"},
        {"backendChannelControl", "4294967296",
         "\"backendChannelControl\": a 32-bit number is expected, not 4294967296"},
        {"eventTicket", "[]", "\"eventTicket\": a text is expected, not an array"},
        {"permittedDataType", "\"TypeA\"",
         "\"permittedDataType\": an array of texts is expected, not a text"},
        {"permittedDataType", "[\"TypeB\", {}]",
         "\"permittedDataType\"[1]: a text is expected, not an object"},
    };
    for (const Case& wrong : cases) {
        kyo::Json::Value message = control(2, 1, {"TypeB"}, "other");
        ASSERT_TRUE(kyo::Json::Reader().parse(wrong.json, message[wrong.key]));
        m_log.clear();
        m_server.handleMasterControlCallBack(message);
        EXPECT_THAT(m_log.messages(3),
                    ElementsAre(std::string("Master control refused, ") + wrong.complaint));
        EXPECT_FALSE(m_server.isBlocked());
    }
    m_log.clear();
    m_server.handleMasterControlCallBack(kyo::Json::Value("text"));
    EXPECT_TRUE(m_log.has(3, "Master control refused, the message: an object is expected, not a text"));
    EXPECT_THAT(statuses(), IsEmpty());
    ASSERT_EQ(send(), 0);
    EXPECT_EQ(lastEnvelope()["eventTicket"], "ticket");
}

TEST_F(BackendLink, takes_what_converts) {
    kyo::Json::Value message = control();
    message["eventTicket"] = 17;
    message["dataDeliveryResult"] = false;
    message["backendChannelControl"] = 0.0;
    message["permittedDataType"][0] = 5;
    m_server.handleMasterControlCallBack(message);
    ASSERT_EQ(send(), 0);
    EXPECT_EQ(lastEnvelope()["eventTicket"], "17");
}

TEST_F(BackendLink, logs_a_message_in_order) {
    m_server.handleMasterControlCallBack(control(0, 1, {"TypeA", "TypeB"}, "T-1"));
    EXPECT_THAT(
        m_log.messages(5),
        ElementsAre("ZEPH-49767 Received master control callback json = "
                    "{\"backendChannelControl\":1,\"dataDeliveryResult\":0,\"eventTicket\":\"T-1\","
                    "\"permittedDataType\":[\"TypeA\",\"TypeB\"]}",
                    "Data Delivery result = 0", "Backend Channel Control result = 1",
                    "Size of Supported Data Types = 2", "Supported data type = TypeA",
                    "Supported data type = TypeB",
                    "ZEPH-48392 VLM received an event ticket from ORX master control to send data: T-1",
                    "ZEPH-49348: VLM wants to control VLM Data Submission according to "
                    "BackendChannelControl: 1"));
}

TEST_F(BackendLink, puts_the_report_without_its_catalog_id_into_the_envelope) {
    open();
    m_server.handleMasterControlCallBack(control(0, 0, {"TypeA"}, "newest"));
    kyo::Json::Value sent = report("Trip", 3);
    ASSERT_EQ(m_server.sendToOrx(sent), 0);
    const kyo::Json::Value envelope = lastEnvelope();
    EXPECT_THAT(
        envelope.getMemberNames(),
        testing::UnorderedElementsAre("eventTicket", "elementId", "version", "timezone", "correlationTag",
                                      "deliveryMode", "eventId", "isCallbackAbilityRequested", "messageId",
                                      "timeToLive", "timestamp", "orxClientDataReport"));
    EXPECT_EQ(envelope["eventTicket"], "newest");
    EXPECT_EQ(envelope["elementId"], 1);
    EXPECT_EQ(envelope["version"], "1.0.0");
    EXPECT_EQ(envelope["timezone"], 20);
    EXPECT_EQ(envelope["correlationTag"], "VLMCorrelTag");
    EXPECT_EQ(envelope["deliveryMode"], 0);
    EXPECT_EQ(envelope["isCallbackAbilityRequested"], true);
    EXPECT_EQ(envelope["timeToLive"], 7200);
    EXPECT_TRUE(envelope["timestamp"].isIntegral());
    EXPECT_LT(envelope["timestamp"].asInt64(), 100'000'000'000) << "whole seconds";
    kyo::Json::Value expected = report("Trip", 3);
    expected.removeMember("catalogId");
    EXPECT_EQ(envelope["orxClientDataReport"].asString(), kyo::Json::FastWriter().write(expected));
    EXPECT_TRUE(m_log.has(5, "ZEPH-50057 Using OrxConfig recordId as CatalogId: catalog-1"));
    EXPECT_EQ(m_log.messages(5).back(), "Send vlm Data State: SUCCESS ");
}

TEST_F(BackendLink, identifies_messages_by_catalog_creation_name_and_number) {
    open();
    const auto idOf = [this](kyo::Json::Value value) {
        EXPECT_EQ(send(std::move(value)), 0);
        return lastEnvelope()["messageId"].asString();
    };
    const std::string id = idOf(report("a", 1));
    EXPECT_EQ(idOf(report("a", 1)), id);
    EXPECT_NE(idOf(report("b", 1)), id) << "two reports of one millisecond";
    EXPECT_NE(idOf(report("a", 2)), id);
    EXPECT_NE(idOf(report("a", 1, "1700000000001")), id);
    kyo::Json::Value otherCatalog = report("a", 1);
    otherCatalog["catalogId"] = "catalog-2";
    EXPECT_NE(idOf(otherCatalog), id);
    EXPECT_THAT(id,
                testing::MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-8[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
    EXPECT_TRUE(m_log.hasPart(7, "Generated HASH SIZE = 64"));
    EXPECT_NE(m_server.getUniqueMessageId("ab", "c"), m_server.getUniqueMessageId("a", "bc"));
}

TEST_F(BackendLink, survives_a_report_that_is_no_report) {
    open();
    EXPECT_EQ(send(kyo::Json::Value("text")), 0);
    EXPECT_EQ(send(kyo::Json::Value()), 0);
    kyo::Json::Value odd = report("r");
    odd["catalogId"] = kyo::Json::Value(kyo::Json::arrayValue);
    odd["createDatetime"] = kyo::Json::Value(kyo::Json::objectValue);
    EXPECT_EQ(send(odd), 0);
}

}  // namespace
