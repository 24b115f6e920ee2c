#pragma once
/// Passes what the test's sockets have received to tshark and reads the result.
#include <cstdio>
#include <span>

#include "tests/support/ChildProcess.h"
#include "tests/support/Test.h"

namespace vlmTest {

/// The elements of one name, as decoded by tshark; several with a blank between them.
struct AnalysedElement {
    std::string show;  ///< its value
    std::string text;  ///< tshark's line for people
};
using AnalysedFrame = std::map<std::string, AnalysedElement>;

/// Each byte as two hexadecimal digits, with a separator between them.
inline std::string hexText(std::span<const std::uint8_t> bytes, char separator) {
    std::string text;
    for (const auto byte : bytes) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%c%02x", separator, byte);
        text += digits;
    }
    return text.empty() ? text : text.substr(1);
}

class Analyser {
  public:
    void add(std::span<const std::uint8_t> bytes) {
        m_dump += "000000 " + hexText(bytes, ' ') + '\n';
        ++m_count;
    }
    std::size_t count() const { return m_count; }

    /// What was added, each as a frame. `tables` is a folder with tshark's configuration tables, or empty.
    std::vector<AnalysedFrame> frames(const std::string& tables = "") const {
        const std::string capture = m_folder.file("capture");
        run({"text2pcap", "-q", "-P", "someip_udp", m_folder.write("dump", m_dump), capture});
        // tshark creates its value fields only when a table changes after all were read: hence the extra row.
        const std::string text =
            run({"tshark", "-T", "pdml", "-r", capture, "-o",
                 R"(uat:SOMEIP_parameter_structs:"fffffff0","unused","32","0","FALSE","1","0",)"
                 R"("unused","1","00000001","unused")"},
                tables.empty() ? m_folder.path() : tables);
        std::vector<AnalysedFrame> frames;
        for (std::size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at + 1)) {
            const auto element = text.substr(at, text.find('>', at) - at);
            if (element.starts_with("<packet")) {
                frames.emplace_back();
            } else if (!frames.empty()) {
                auto& [show, line] = frames.back()[attribute(element, "name")];
                show += (show.empty() ? "" : " ") + attribute(element, "show");
                line += (line.empty() ? "" : " ") + attribute(element, "showname");
            }
        }
        EXPECT_EQ(frames.size(), m_count);
        return frames;
    }

  private:
    static std::string attribute(const std::string& element, const std::string& name) {
        const auto start = element.find(" " + name + "=\"");
        if (start == std::string::npos) {
            return "";
        }
        const auto from = start + name.size() + 3;
        return element.substr(from, element.find('"', from) - from);
    }

    /// The output of a command that must succeed.
    std::string run(const std::vector<std::string>& command, const std::string& configuration = "") const {
        const auto outcome = runToItsEnd(
            command, {"LC_ALL=C.UTF-8", "HOME=" + m_folder.path(), "WIRESHARK_CONFIG_DIR=" + configuration});
        EXPECT_EQ(outcome.status, 0) << "tshark is needed; " << command[0] << ": " << outcome.err;
        return outcome.out;
    }

    TemporaryFolder m_folder;
    std::string m_dump;
    std::size_t m_count = 0;
};

}  // namespace vlmTest
