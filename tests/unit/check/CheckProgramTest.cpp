// vlm-check as a person runs it: exit status and output.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "kyo/Json.h"

namespace {

using testing::HasSubstr;

class VlmCheck : public testing::Test {
  protected:
    VlmCheck() {
        std::string pattern = testing::TempDir() + "vlm-check-XXXXXX";
        m_folder = mkdtemp(pattern.data());
    }
    ~VlmCheck() override { std::filesystem::remove_all(m_folder); }

    std::string file(const std::string& name, const std::string& text) const {
        std::ofstream(m_folder / name) << text;
        return (m_folder / name).string();
    }

    /// Exit status; what was printed goes to m_output.
    int run(const std::string& arguments) {
        FILE* pipe = popen((std::string(VLM_CHECK) + " " + arguments + " 2>&1").c_str(), "r");
        std::array<char, 4096> buffer{};
        m_output.clear();
        while (const std::size_t n = fread(buffer.data(), 1, buffer.size(), pipe)) {
            m_output.append(buffer.data(), n);
        }
        const int status = pclose(pipe);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::filesystem::path m_folder;
    std::string m_output;
};

TEST_F(VlmCheck, ends_with_0_when_all_files_are_good_and_with_1_when_one_is_not) {
    const auto good = file("good.json", "// with a comment\n{\"OfferedDataTypes\": [\"A\"]}");
    const auto bad = file("bad.json", R"({"OfferedDataTypes": {}})");
    EXPECT_EQ(run(good), 0) << m_output;
    EXPECT_THAT(m_output, HasSubstr("good.json: good (application configuration)\n"));
    EXPECT_EQ(run(good + " " + bad), 1);
    EXPECT_THAT(m_output,
                HasSubstr("bad.json:1: error: $.OfferedDataTypes: is an object; an array is expected\n"));
    EXPECT_EQ(run("--kind collector " + good), 1);
    EXPECT_THAT(m_output, HasSubstr("\"COLLECT\" is missing"));
}

TEST_F(VlmCheck, names_what_keeps_a_file_from_being_read) {
    EXPECT_EQ(run(file("cut.json", "{\"CLOCK\": [\n{\"name\": \"c\",}")), 1);
    EXPECT_THAT(m_output, HasSubstr("cut.json:2: error: $: is not JSON"));
    EXPECT_EQ(run(file("twice.json", "{\n\"CLOCK\": [],\n\"CLOCK\": []}")), 1);
    EXPECT_THAT(m_output, HasSubstr("twice.json:3: error: $: member 'CLOCK' is given twice"));
    EXPECT_EQ(run((m_folder / "missing.json").string()), 1);
    EXPECT_THAT(m_output, HasSubstr("No such file"));
    EXPECT_EQ(run(m_folder.string()), 1);
    EXPECT_EQ(run(file("deep.json", std::string(100000, '['))), 1);
    EXPECT_EQ(run(file("other.json", R"({"temperature": 3})")), 1);
    EXPECT_THAT(m_output, HasSubstr("looks like none of the known files"));
}

TEST_F(VlmCheck, refuses_a_command_line_that_it_does_not_understand) {
    EXPECT_EQ(run(""), 1);
    EXPECT_EQ(run("--kind nonsense x.json"), 1);
    EXPECT_THAT(m_output, HasSubstr("unknown kind \"nonsense\""));
    EXPECT_EQ(run("--no-such-option x.json"), 1);
    EXPECT_EQ(run("--catalog " + (m_folder / "none.json").string() + " x.json"), 1);
    EXPECT_THAT(m_output, HasSubstr("none.json cannot be read"));
    EXPECT_EQ(run("--help"), 0);
}

TEST_F(VlmCheck, gives_its_findings_as_json) {
    EXPECT_EQ(run("--json " + file("bad.json", R"({"OfferedDataTypes": [[]]})")), 1);
    kyo::Json::Value result;
    kyo::Json::Reader reader;
    ASSERT_TRUE(reader.parse(m_output, result)) << m_output;
    EXPECT_FALSE(result[0]["good"].asBool());
    EXPECT_EQ(result[0]["findings"][0]["path"].asString(), "$.OfferedDataTypes[0]");
    EXPECT_EQ(result[0]["findings"][0]["severity"].asString(), "error");
}

}  // namespace
