#pragma once
/// Passes datagrams, and pieces of TCP streams, to tshark and reads the result. The test's sockets capture
/// them, so no capture privilege is needed.
#include <gmock/gmock.h>

#include <cstdio>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "someip/Endpoint.h"
#include "someip/SdMessage.h"
#include "tests/support/ChildProcess.h"

namespace vlmTest {

struct CapturedDatagram {
    someip::Endpoint from;
    someip::Endpoint to;
    std::vector<std::uint8_t> bytes;
};

/// One element of a frame as decoded by tshark.
struct AnalysedElement {
    std::string show;  ///< its value
    std::string text;  ///< tshark's line for people
};

/// One frame: the elements of each name, in order.
using AnalysedFrame = std::map<std::string, std::vector<AnalysedElement>>;

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
    void add(const someip::Endpoint& from, const someip::Endpoint& to, std::span<const std::uint8_t> bytes) {
        m_datagrams.push_back({from, to, {bytes.begin(), bytes.end()}});
    }
    std::size_t count() const { return m_datagrams.size(); }
    void clear() { m_datagrams.clear(); }

    /// The capture as decoded by tshark, at all ports. `tables` is a folder with its configuration tables, or
    /// empty.
    std::vector<AnalysedFrame> frames(const std::string& tables = "") const {
        // tshark creates its value fields only when a table changes after all were read: hence the extra row.
        const std::string text =
            run({"tshark", "-T", "pdml", "-r", capture(), "-d", "udp.port==1-65535,someip", "-d",
                 "tcp.port==1-65535,someip", "-o",
                 R"(uat:SOMEIP_parameter_structs:"fffffff0","unused","32","0","FALSE","1","0",)"
                 R"("unused","1","00000001","unused")"},
                tables.empty() ? m_folder.path() : tables);
        std::vector<AnalysedFrame> frames;
        for (std::size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at + 1)) {
            const auto element = text.substr(at, text.find('>', at) - at);
            if (element.starts_with("<packet")) {
                frames.emplace_back();
            } else if (!frames.empty()) {
                if (element.starts_with("<proto name=\"someip\"") && !frames.back().contains("someip")) {
                    // What it thinks of ports, such as a possible traceroute.
                    std::erase_if(frames.back(), [](const auto& one) {
                        return one.first.find("expert") != std::string::npos;
                    });
                }
                frames.back()[attribute(element, "name")].push_back(
                    {attribute(element, "show"), attribute(element, "showname")});
            }
        }
        EXPECT_EQ(frames.size(), m_datagrams.size());
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

    /// Writes the capture, with headers by text2pcap, and returns its path. What follows each other with the
    /// same endpoints is converted at once, so that the pieces of a stream are numbered.
    std::string capture() const {
        std::vector<std::string> merge{"mergecap", "-a", "-w", m_folder.file("capture")};
        for (auto next = m_datagrams.begin(); next != m_datagrams.end();) {
            const auto& [from, to, bytes] = *next;
            std::string dump;
            for (; next != m_datagrams.end() && next->from == from && next->to == to; ++next) {
                dump += "000000 " + hexText(next->bytes, ' ') + '\n';
            }
            const std::string part = m_folder.write("part" + std::to_string(merge.size()), dump);
            run({"text2pcap", "-q", from.address.isIpv6() ? "-6" : "-4",
                 toText(from.address) + ',' + toText(to.address),
                 from.protocol == someip::Protocol::Tcp ? "-T" : "-u",
                 std::to_string(from.port) + ',' + std::to_string(to.port), part, part + ".pcap"});
            merge.push_back(part + ".pcap");
        }
        run(merge);
        return m_folder.file("capture");
    }

    TemporaryFolder m_folder;
    std::vector<CapturedDatagram> m_datagrams;
};

}  // namespace vlmTest
