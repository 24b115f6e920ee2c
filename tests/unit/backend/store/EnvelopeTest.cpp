#include "backend/store/Envelope.h"

#include "tests/support/Test.h"
#include "tests/unit/backend/Envelopes.h"

namespace vlmBackend::store {
namespace {

using namespace vlmTest;

TEST(EnvelopeReader, SortsTheMembersOfSamplesAndSetsAsideWhatFitsNoEvent) {
    const std::string bad[] = {
        R"({"propertyValuePairs":{"latitude":"48"},"timestamp":"5"})",
        R"({"propertyValuePairs":{"type":1.5},"timestamp":"5"})",
        R"({"propertyValuePairs":{"noSuchMember":1},"timestamp":"5"})",
        R"({"propertyValuePairs":{"type":1}})",
        R"({"timestamp":"5"})",
    };
    std::string samples = "[" + positionText(1'700'000'000'123, 48.5, 9.25);
    for (const std::string& one : bad) {
        samples += "," + one;
    }
    EnvelopeReader reader;
    Envelope envelope;
    std::string reason;
    ASSERT_TRUE(reader.read(envelopeText("m1", samples + "]"), envelope, reason)) << reason;
    EXPECT_EQ(envelope.messageId, "m1");
    EXPECT_EQ(envelope.report, "Trip");
    EXPECT_EQ(envelope.sequence, 3);
    EXPECT_EQ(envelope.createdMs, 1'700'000'000'000);
    ASSERT_EQ(envelope.samples.size(), 1);
    EXPECT_EQ(envelope.samples[0].event->view, "gnss_positions");
    EXPECT_EQ(envelope.samples[0].measuredMs, 1'700'000'000'123);
    EXPECT_EQ(envelope.samples[0].values, R"({"type":1,"latitude":48.500000,"longitude":9.250000})");
    ASSERT_EQ(envelope.refused.size(), std::size(bad));
    for (std::size_t i = 0; i < std::size(bad); ++i) {
        EXPECT_EQ(envelope.refused[i].text, bad[i]) << envelope.refused[i].reason;
    }
    EXPECT_THAT(envelope.refused[2].reason, HasSubstr("noSuchMember"));

    ASSERT_TRUE(reader.read(envelopeText("m2", "null"), envelope, reason));
    EXPECT_TRUE(envelope.samples.empty());
    ASSERT_TRUE(reader.read(envelopeText("m3", "[" + positionText(1, 1, 1) + "]", "GNSS"), envelope, reason));
    EXPECT_EQ(envelope.refused.size(), 1) << "the registry's name ends in Proxy";
}

TEST(EnvelopeReader, NamesWhatIsWrongWithOtherTexts) {
    std::string nested = envelopeText("m", "null");
    nested.insert(nested.size() - 1, ",\"x\":" + std::string(2'000'000, '['));
    const std::pair<std::string, const char*> cases[] = {
        {"", "no JSON object"},
        {"[]", "no JSON object"},
        {"{", ""},
        {"{}", "messageId: missing"},
        {R"({"messageId":7})", "messageId: a text"},
        {R"({"messageId":")" + std::string(300, 'x') + R"("})", "messageId: longer"},
        {R"({"messageId":"a\u0000b"})", "U+0000"},
        {R"({"messageId":"a"})", "orxClientDataReport: missing"},
        {R"({"messageId":"a","orxClientDataReport":"[1]"})", "orxClientDataReport: no JSON object"},
        {R"({"messageId":"a","orxClientDataReport":"{\"signalCollections\":[1]}"})", ""},
        {"{\"messageId\":\"\xff\"}", ""},
        {nested, ""},
    };
    EnvelopeReader reader;
    Envelope envelope;
    for (const auto& [text, expected] : cases) {
        std::string reason;
        EXPECT_FALSE(reader.read(text, envelope, reason)) << text.substr(0, 80);
        EXPECT_THAT(reason, HasSubstr(expected)) << text.substr(0, 80);
        EXPECT_FALSE(reason.empty()) << text.substr(0, 80);
    }
}

}  // namespace
}  // namespace vlmBackend::store
