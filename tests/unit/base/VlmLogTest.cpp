// The form of log lines, and the cost of a message whose level is off.
#include "base/VlmLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/LogCapture.h"

namespace vlmProd {

// Operations with realistic signatures.
struct SampleSpeaker {
    void say(const std::string& text, kyo::Json::Value& value) {
        VLM_LOG(5, "said " << text << ' ' << value);
        VLM_LOG_PLAIN(3, "plain");
        VLM_LOG_AT(7, 226, "fixed");
        VLM_TRACE(7);
    }
};

}  // namespace vlmProd

namespace {

using vlmProd::logSignature;
using vlmTest::LogCapture;
using vlmTest::LoggedLine;

TEST(LogSignature, IsTheSameForEveryCompiler) {
    const std::pair<const char*, const char*> cases[] = {
        {"const Json::Value& vlmProd::VLMConfig::getJsonValue(const std::string&, int)",
         "const kyo::Json::Value& vlmProd::VLMConfig::getJsonValue(const string&, int)"},
        {"const kyo::Json::Value &vlmProd::VLMConfig::getJsonValue(const std::basic_string<char> &, int)",
         "const kyo::Json::Value& vlmProd::VLMConfig::getJsonValue(const string&, int)"},
        {"void f(std::__cxx11::basic_string<char>, char **)", "void f(string, char**)"},
        {"void vlmProd::A<T>::put(T) [with T = int; std::string = x]", "void vlmProd::A<T>::put(T)"},
    };
    for (const auto& [printed, expected] : cases) {
        EXPECT_EQ(logSignature(printed), expected);
    }
}

TEST(LogLines, BeginWithSignatureAndLineWhereTheFormHasOne) {
    LogCapture log;
    kyo::Json::Value value(kyo::Json::arrayValue);
    value.append(1.5);
    vlmProd::SampleSpeaker().say("it", value);
    const std::vector<LoggedLine> lines = log.lines();
    ASSERT_EQ(lines.size(), 4u);
    const std::string signature = "void vlmProd::SampleSpeaker::say(const string&, kyo::Json::Value&)";
    for (const LoggedLine& line : lines) {
        EXPECT_EQ(line.signature, signature);
    }
    EXPECT_EQ(lines[0].text, signature + ":" + std::to_string(lines[0].line) + " said it [1.5]");
    EXPECT_EQ(lines[1].text, signature + " plain");
    EXPECT_EQ(lines[2].text, signature + ":226 fixed");
    EXPECT_EQ(lines[3].text, signature + ":" + std::to_string(lines[0].line + 3)) << "a trace has no message";
}

TEST(LogLines, OfALevelThatIsOffEvaluateNothing) {
    LogCapture log(3);
    int evaluated = 0;
    const auto expensive = [&evaluated] { return ++evaluated; };
    VLM_LOG(5, expensive());
    VLM_LOG_AT(7, 1, expensive());
    VLM_LOG_PLAIN_AS(5, expensive(), expensive());
    EXPECT_EQ(evaluated, 0);
    VLM_LOG(3, expensive());
    EXPECT_EQ(evaluated, 1);
}

}  // namespace
