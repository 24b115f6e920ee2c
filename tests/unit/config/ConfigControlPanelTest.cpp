/// What becomes of the backend's configuration answers, and when it is asked again.
#include <botan/base64.h>

#include "config/ConfigControlPanel.h"
#include "report/VlmReportControl.h"
#include "tests/support/Test.h"

namespace {

using namespace vlmTest;
using vlmProd::ConfigControlPanel;

std::string base64(const std::string& text) {
    return Botan::base64_encode(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

kyo::Json::Value record(const std::string& id, const std::string& body) {
    kyo::Json::Value value(kyo::Json::arrayValue);
    value[0]["recordId"] = id;
    value[0]["recordBody"] = body;
    return value;
}

struct ConfigAnswer : Test {
    LogCapture m_log;
    std::string m_reason;
    std::vector<std::pair<kyo::Json::Value, std::string>> m_handedOver;
    std::shared_ptr<ConfigControlPanel> m_panel = std::make_shared<ConfigControlPanel>(
        [this](kyo::Json::Value configuration, std::string recordId, std::string) {
            m_handedOver.emplace_back(std::move(configuration), std::move(recordId));
            return m_reason;
        });
};

TEST_F(ConfigAnswer, HandsTheDecodedConfigurationOnNamesReportsAfterTheRecordAndTellsWhatBecameOfIt) {
    std::vector<std::string> outcomes;
    m_panel->setOutcomeFunction([&](const std::string& id, bool isAccepted, const std::string& reason) {
        outcomes.push_back(id + (isAccepted ? " runs" : ": " + reason));
    });
    std::string body = base64("{\"CONFIG\":{\"name\":\"n\"}}");
    body.insert(body.size() / 2, "\r\n ");  // backends break base64 into lines
    m_panel->ConfigResponseCallback(record("record-7", body));
    ASSERT_EQ(m_handedOver.size(), 1u);
    EXPECT_EQ(m_handedOver[0].first["CONFIG"]["name"], "n");
    EXPECT_EQ(m_handedOver[0].second, "record-7");
    std::string catalogId;
    vlmProd::VlmReportControl::getInstance().getCatalogId(catalogId);
    EXPECT_EQ(catalogId, "record-7");
    m_reason = "not good";
    m_panel->ConfigResponseCallback(record("b", base64("{}")));
    m_panel->ConfigResponseCallback(record("c", base64("{")));
    EXPECT_THAT(outcomes,
                ElementsAre("record-7 runs", "b: not good", StartsWith("c: [0].recordBody is not JSON: ")));
}

TEST_F(ConfigAnswer, ConfiguresNothingFromWhatCannotBeUsed) {
    const std::string refusal = "Configuration answer refused, ";
    const std::pair<kyo::Json::Value, std::string> cases[] = {
        {valueOf("17"), refusal + "the answer: an array is expected, found a number (17)"},
        {valueOf("[]"), "The configuration answer holds no record; the request goes on"},
        {valueOf("[\"text\"]"), refusal + "[0]: an object is expected, found a text (\"text\")"},
        {valueOf("[{\"recordId\":[],\"recordBody\":\"\"}]"),
         refusal + "[0].recordId: a text is expected, found an array"},
        {valueOf("[{\"recordId\":\"a\",\"recordBody\":{}}]"),
         refusal + "[0].recordBody: a text is expected, found an object"},
        {record("a", "no base64!"), "Can not parse from string to json to get config."},
        // Before they take fifty times their size in memory.
        {record("a", base64('[' + std::string(200'000, ',') + ']')),
         "[0].recordBody: at most 100000 values are expected, exceeded at offset 99999"},
        {record("a", base64(std::string(900, '['))),
         "[0].recordBody: at most 64 levels are expected, exceeded at offset 64"},
    };
    const auto refused = counted("config.refused");
    for (const auto& [answer, complaint] : cases) {
        m_log.clear();
        m_panel->ConfigResponseCallback(answer);
        EXPECT_EQ(m_log.count(3, complaint), 1u) << complaint;
    }
    EXPECT_TRUE(m_handedOver.empty());
    EXPECT_EQ(counted("config.refused"), refused + std::size(cases)) << "each once";
}

TEST_F(ConfigAnswer, EndsTheRetryWithAnyAnswerButAnEmptyOne) {
    m_panel->executeConfigRetry();  // no request function yet
    int asked = 0;
    m_panel->setRequestFunction([&] { ++asked; });
    m_panel->startConfigRequestRetry();
    m_panel->ConfigResponseCallback(valueOf("[]"));
    EXPECT_TRUE(m_panel->isRetrying());
    m_panel->executeConfigRetry();
    EXPECT_EQ(asked, 1);
    m_panel->ConfigResponseCallback(record("a", "no base64!"));
    m_panel->startConfigRequestRetry();
    EXPECT_FALSE(m_panel->isRetrying()) << "it starts once";
}

}  // namespace
