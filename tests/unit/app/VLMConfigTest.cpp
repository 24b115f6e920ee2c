// The application configuration: key paths, the log lines of failed look-ups, typed look-ups and the digest.
#include "app/VLMConfig.h"
#include "tests/support/Test.h"

namespace {

using namespace vlmTest;
using vlmProd::VLMConfig;

constexpr char kDocument[] = R"({
  "Services": [{"Name": "a"}, {"Name": "b"}, {"Name": "c", "Ports": [[1, 2], [3]]}],
  "Top": {"Inner": {"Leaf": 5}, "Null": null},
  "Text": "t", "Int": -3, "Long": 5000000000, "Huge": 18446744073709551615, "Real": 1234567.5, "Whole": 3.0,
  "Flag": true, "Dotted": "x"
})";

struct VLMConfigTest : Test {
    TemporaryFolder m_folder;
    LogCapture m_log;
    VLMConfig m_config{m_folder.write("vlm.json", kDocument)};
};

TEST_F(VLMConfigTest, KeysLeadThroughMembersAndElements) {
    EXPECT_EQ(m_config.getJsonValue("").size(), 10u) << "the whole document";
    EXPECT_EQ(m_config.getString("Services[2].Name"), "c");
    EXPECT_EQ(m_config.getString("Services[%].Name", "", 1), "b");
    EXPECT_EQ(m_config.getString("Services[]Name"), "a") << "an empty run counts as 0";
    EXPECT_EQ(m_config.getString("..Services[0]..Name."), "a") << "further dots are skipped";
    EXPECT_EQ(m_config.getInt("Services[2].Ports[0][1]"), 2);
    EXPECT_EQ(m_config.getInt("Services[002].Ports[%][0]", 0, 1), 3);
    EXPECT_EQ(m_config.getInt("Top.Inner.Leaf"), 5);
    EXPECT_EQ(m_config.getArraySize("Services"), 3u);
    EXPECT_EQ(m_config.getArraySize("Top"), 0u);
}

TEST_F(VLMConfigTest, AKeyThatCannotBeResolvedLogsWhyAtItsKnownLine) {
    const std::string unclosed = "Config::getJsonValue() - FAIL: No closing ] ended unexpectedly!, key=";
    const std::string outside = "VLMConfig::getJsonValue() - FAIL: Not valid index! arrayindex=";
    const std::string absent = "Config::getJsonValue() - Key not present in JSON! ";
    const std::tuple<std::string, int, int, std::string> cases[] = {
        {"Top[0]", 0, 226, "VLMConfig::getJsonValue() - FAIL: Not Array Type, key=Top[0]"},
        {"Services[12", 0, 247, unclosed + "Services[12"},
        {"Services[x]", 0, 247, unclosed + "Services[x]"},
        {"Services[3]", 0, 255, outside + "3, key=Services[3]"},
        {"Services[%]", -1, 255, outside + "-1, key=Services[%]"},
        {"Services[99999999999999999999]", 0, 255,
         outside + "4294967295, key=Services[99999999999999999999]"},
        {"Text.Sub.Leaf", 0, 281,
         "VLMConfig::getJsonValue() - Unable to resolve.  Object expected at Sub.Leaf, key=Text.Sub.Leaf"},
        {"Top.None", 0, 292, absent},
        {"Top.Null", 0, 292, absent},
    };
    for (const auto& [key, index, line, message] : cases) {
        SCOPED_TRACE(key);
        m_log.clear();
        EXPECT_TRUE(m_config.getJsonValue(key, index).isNull());
        const auto lines = m_log.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].level, 7);
        EXPECT_EQ(lines[0].text,
                  "const kyo::Json::Value& vlmProd::VLMConfig::getJsonValue(const string&, int):" +
                      std::to_string(line) + " " + message);
    }
}

TEST_F(VLMConfigTest, TypedLookUpsAnswerTheDefaultForAnotherType) {
    EXPECT_EQ(m_config.getInt("Int"), -3);
    EXPECT_EQ(m_config.getInt("Whole"), 3);
    EXPECT_EQ(m_config.getInt("Real", 9), 9);
    EXPECT_EQ(m_config.getInt("Long", 9), 9) << "out of the range of int";
    EXPECT_TRUE(m_log.has(
        3, "Long: a number from -2147483648 to 2147483647 is expected, found a number (5000000000)"));
    EXPECT_EQ(m_config.getLong("Long"), 5000000000LL);
    EXPECT_EQ(m_config.getLong("Huge", 9), 9);
    EXPECT_TRUE(m_log.hasPart(3, "Huge: a 64-bit number is expected"));
    EXPECT_TRUE(m_config.getBool("Flag"));
    EXPECT_TRUE(m_config.getBool("Int", true));
    EXPECT_DOUBLE_EQ(m_config.getDouble("Int"), -3.0);
    EXPECT_EQ(m_config.getAsString("Int"), "-3");
    EXPECT_EQ(m_config.getAsString("Huge"), "18446744073709551615");
    EXPECT_EQ(m_config.getAsString("Real"), "1.23457e+06");
    EXPECT_EQ(m_config.getAsString("Flag", "d"), "d");
}

TEST_F(VLMConfigTest, LoadingThrowsATextTheVersionIsTheFilesDigestAndTheSingletonIsCreatedOnce) {
    const std::string path = m_folder.file("vlm.json");
    EXPECT_EQ(m_config.getFileHash(m_folder.write("abc", "abc")),
              "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
    EXPECT_EQ(m_config.getFileHash(m_folder.file("absent")), "");
    EXPECT_EQ(m_config.getConfigVersion(), m_config.getFileHash(path));
    EXPECT_THAT([] { VLMConfig::createSingleton(""); },
                Throws<std::string>("VLM Config file path not provided!"));
    EXPECT_THAT([&] { VLMConfig::createSingleton(m_folder.file("missing.json")); },
                Throws<std::string>("VLM Config file path not valid"));
    VLMConfig* const created = VLMConfig::createSingleton(path);
    EXPECT_EQ(VLMConfig::getInstance(), created);
    EXPECT_THAT([&] { VLMConfig::createSingleton(path); },
                Throws<std::string>("VLM Config::create() ERROR: VLM Config already created!"));
}

}  // namespace
