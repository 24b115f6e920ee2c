// vlm-check as a program: exit status and output.
#include "tests/support/ChildProcess.h"
#include "tests/support/Test.h"

namespace {

using namespace vlmTest;

struct VlmCheck : Test {
    /// Returns the exit status; m_output has the output.
    int run(const std::string& arguments) {
        const Outcome outcome = runToItsEnd({"sh", "-c", std::string(VLM_CHECK) + " " + arguments + " 2>&1"});
        m_output = outcome.out;
        return outcome.status;
    }

    const TemporaryFolder m_folder;
    std::string m_output;
};

TEST_F(VlmCheck, EndsWith0WhenAllFilesAreGoodAndWith1WhenOneIsNot) {
    const auto good = m_folder.write("good.json", "// with a comment\n{\"OfferedDataTypes\": [\"A\"]}");
    const auto bad = m_folder.write("bad.json", R"({"OfferedDataTypes": {}})");
    EXPECT_EQ(run(good), 0) << m_output;
    EXPECT_THAT(m_output, HasSubstr("good.json: good (application configuration)\n"));
    EXPECT_EQ(run(bad + " " + good), 1);
    EXPECT_EQ(run(good + " " + bad), 1);
    EXPECT_THAT(m_output,
                HasSubstr("bad.json:1: error: $.OfferedDataTypes: is an object; an array is expected\n"));
    EXPECT_EQ(run("--kind collector " + good), 1);
    EXPECT_THAT(m_output, HasSubstr("\"COLLECT\" is missing"));
    EXPECT_EQ(run("--json " + bad), 1);
    const Value result = valueOf(m_output);
    EXPECT_FALSE(result[0]["good"].asBool());
    EXPECT_EQ(result[0]["findings"][0]["path"].asString(), "$.OfferedDataTypes");
}

TEST_F(VlmCheck, NamesWhatKeepsAFileOrTheCommandLineFromBeingRead) {
    const std::pair<std::string, const char*> cases[] = {
        {m_folder.write("cut.json", "{\"CLOCK\": [\n{\"name\": \"c\",}"),
         "cut.json:2: error: $: is not JSON"},
        {m_folder.write("twice.json", "{\n\"CLOCK\": [],\n\"CLOCK\": []}"),
         "twice.json:3: error: $: member 'CLOCK' is given twice"},
        {m_folder.file("missing.json"), "No such file"},
        {m_folder.path(), "error"},
        {m_folder.write("deep.json", std::string(100000, '[')), "error"},
        {m_folder.write("other.json", R"({"temperature": 3})"), "looks like none of the known files"},
        {"", ""},
        {"--kind nonsense x.json", "unknown kind \"nonsense\""},
        {"--catalog " + m_folder.file("none.json") + " x.json", "none.json cannot be read"}};
    for (const auto& [arguments, expected] : cases) {
        EXPECT_EQ(run(arguments), 1) << arguments;
        EXPECT_THAT(m_output, HasSubstr(expected)) << arguments;
    }
    EXPECT_EQ(run("--help"), 0);
}

}  // namespace
