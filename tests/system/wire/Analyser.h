#pragma once
/// Datagrams on their way to tshark and what it makes of them. Captured by the sockets of a test, so nothing
/// needs the privilege to capture.
#include <gmock/gmock.h>

#include <cstdio>
#include <map>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "someip/ByteOrder.h"
#include "someip/Endpoint.h"
#include "tests/support/TemporaryFolder.h"

namespace vlmTest {

struct CapturedDatagram {
    someip::Endpoint from;
    someip::Endpoint to;
    std::vector<std::uint8_t> bytes;
};

/// One frame as tshark sees it: the values of each field, in order.
using AnalysedFrame = std::map<std::string, std::vector<std::string>>;

class Analyser {
  public:
    void add(const someip::Endpoint& from, const someip::Endpoint& to, std::span<const std::uint8_t> bytes) {
        m_datagrams.push_back({from, to, {bytes.begin(), bytes.end()}});
    }
    std::size_t count() const { return m_datagrams.size(); }
    void clear() { m_datagrams.clear(); }

    /// What tshark prints for the capture. It takes the discovery port for another protocol unless told.
    /// `tables` is a folder with its configuration tables, or empty.
    std::string run(const std::string& arguments, const std::string& tables = "") const {
        const std::string capture = m_folder.write("capture.pcap", pcap());
        std::set<std::uint16_t> ports;
        for (const auto& datagram : m_datagrams) {
            ports.insert({datagram.from.port, datagram.to.port});
        }
        std::string command = "LC_ALL=C.UTF-8 HOME='" + m_folder.path() + "' WIRESHARK_CONFIG_DIR='" +
                              (tables.empty() ? m_folder.path() : tables) + "' tshark -r '" + capture + "'";
        for (const auto port : ports) {
            command += " -d udp.port==" + std::to_string(port) + ",someip";
        }
        command += " " + arguments + " 2>'" + m_folder.file("errors") + "'";
        std::FILE* const output = ::popen(command.c_str(), "r");
        std::string text;
        char part[4096];
        while (const auto size = std::fread(part, 1, sizeof part, output)) {
            text.append(part, size);
        }
        EXPECT_EQ(::pclose(output), 0) << "tshark is needed and must take this: " << command;
        return text;
    }

    /// The named fields of every frame; and always those that mark what the analyser dislikes.
    std::vector<AnalysedFrame> fields(std::vector<std::string> names) const {
        names.insert(names.end(), {"_ws.malformed", "_ws.expert.message"});
        std::string arguments = "-T fields -E separator=';' -E occurrence=a -E aggregator=,";
        for (const auto& name : names) {
            arguments += " -e " + name;
        }
        std::vector<AnalysedFrame> frames;
        for (const auto& line : split(run(arguments), '\n')) {
            const auto cells = split(line + ";", ';');
            AnalysedFrame frame;
            for (std::size_t i = 0; i < names.size() && i < cells.size(); ++i) {
                if (!cells[i].empty()) {
                    frame[names[i]] = split(cells[i] + ",", ',');
                }
            }
            frames.push_back(std::move(frame));
        }
        EXPECT_EQ(frames.size(), m_datagrams.size());
        return frames;
    }

  private:
    static std::vector<std::string> split(const std::string& text, char at) {
        std::vector<std::string> parts;
        std::size_t from = 0;
        for (auto end = text.find(at); end != std::string::npos; end = text.find(at, from)) {
            parts.push_back(text.substr(from, end - from));
            from = end + 1;
        }
        return parts;
    }

    /// Bare IPv4 packets; without UDP checksums, which is allowed.
    std::string pcap() const {
        std::vector<std::uint8_t> out;
        const auto put = [&](auto value) { someip::appendBig(out, value); };
        for (const std::uint32_t word : {0xA1B2C3D4u, 0x00020004u, 0u, 0u, 0x00040000u, 101u}) {
            put(word);
        }
        std::uint32_t second = 0;
        for (const auto& datagram : m_datagrams) {
            const auto size = static_cast<std::uint32_t>(datagram.bytes.size() + 28);
            for (const std::uint32_t word : {++second, 0u, size, size}) {
                put(word);
            }
            put(std::uint16_t{0x4500});
            put(static_cast<std::uint16_t>(size));
            put(static_cast<std::uint16_t>(second));
            put(std::uint16_t{0});
            put(std::uint16_t{0x4011});
            put(std::uint16_t{0});
            put(datagram.from.address);
            put(datagram.to.address);
            put(datagram.from.port);
            put(datagram.to.port);
            put(static_cast<std::uint16_t>(datagram.bytes.size() + 8));
            put(std::uint16_t{0});
            out.insert(out.end(), datagram.bytes.begin(), datagram.bytes.end());
        }
        return {out.begin(), out.end()};
    }

    TemporaryFolder m_folder;
    std::vector<CapturedDatagram> m_datagrams;
};

}  // namespace vlmTest
