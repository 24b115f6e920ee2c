// The signature before a log line, and the cost of a message whose level is off.
#include "base/VlmLog.h"
#include "tests/support/Test.h"

namespace {

using vlmProd::logSignature;
using namespace vlmTest;

TEST(LogSignature, IsTheSameForEveryCompiler) {
    const std::pair<const char*, const char*> cases[] = {
        {"const Json::Value& vlmProd::VLMConfig::getJsonValue(const std::string&, int)",
         "const kyo::Json::Value& vlmProd::VLMConfig::getJsonValue(const string&, int)"},
        {"const kyo::Json::Value &vlmProd::VLMConfig::getJsonValue(const std::basic_string<char> &, int)",
         "const kyo::Json::Value& vlmProd::VLMConfig::getJsonValue(const string&, int)"},
        {"void f(std::__cxx11::basic_string<char>, char **)", "void f(string, char**)"},
        {"void f(std::vector<std::__cxx11::basic_string<char> >)", "void f(std::vector<string>)"},
        {"void vlmProd::A<T>::put(T) [with T = int; std::string = x]", "void vlmProd::A<T>::put(T)"},
    };
    for (const auto& [printed, expected] : cases) {
        EXPECT_EQ(logSignature(printed), expected);
    }
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
