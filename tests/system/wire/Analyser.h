#pragma once
/// Passes datagrams, and pieces of TCP streams, to tshark and reads the result. The test's sockets capture
/// them, so no capture privilege is needed.
#include <gmock/gmock.h>

#include <cstdio>
#include <map>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "someip/ByteOrder.h"
#include "someip/Endpoint.h"
#include "someip/SdMessage.h"
#include "tests/support/TemporaryFolder.h"

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

class Analyser {
  public:
    void add(const someip::Endpoint& from, const someip::Endpoint& to, std::span<const std::uint8_t> bytes) {
        m_datagrams.push_back({from, to, {bytes.begin(), bytes.end()}});
    }
    std::size_t count() const { return m_datagrams.size(); }
    void clear() { m_datagrams.clear(); }

    /// The capture as decoded by tshark, with an option for the discovery port, which it takes for another
    /// protocol. `tables` is a folder with its configuration tables, or empty.
    std::vector<AnalysedFrame> frames(const std::string& tables = "") const {
        const std::string capture = m_folder.write("capture.pcap", pcap());
        std::set<std::string> ports;
        for (const auto& datagram : m_datagrams) {
            const std::string kind = isTcp(datagram) ? "tcp.port==" : "udp.port==";
            ports.insert(
                {kind + std::to_string(datagram.from.port), kind + std::to_string(datagram.to.port)});
        }
        std::string command = "LC_ALL=C.UTF-8 HOME='" + m_folder.path() + "' WIRESHARK_CONFIG_DIR='" +
                              (tables.empty() ? m_folder.path() : tables) + "' tshark -T pdml -r '" +
                              capture + "'";
        for (const auto& port : ports) {
            command += " -d " + port + ",someip";
        }
        // tshark creates its value fields only when a table changes after all were read: hence the extra row.
        command +=
            " -o 'uat:SOMEIP_parameter_structs:\"fffffff0\",\"unused\",\"32\",\"0\",\"FALSE\",\"1\",\"0\","
            "\"unused\",\"1\",\"00000001\",\"unused\"' 2>'" +
            m_folder.file("errors") + "'";
        std::FILE* const output = ::popen(command.c_str(), "r");
        std::string text;
        char part[4096];
        while (const auto size = std::fread(part, 1, sizeof part, output)) {
            text.append(part, size);
        }
        EXPECT_EQ(::pclose(output), 0) << "tshark is needed and must take this: " << command;
        std::vector<AnalysedFrame> frames;
        for (std::size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at + 1)) {
            const auto element = text.substr(at, text.find('>', at) - at);
            if (element.starts_with("<packet")) {
                frames.emplace_back();
            } else if (!frames.empty()) {
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

    static bool isTcp(const CapturedDatagram& datagram) {
        return datagram.from.protocol == someip::Protocol::Tcp;
    }

    /// Packets without link layer. Each stream begins with its first piece.
    std::string pcap() const {
        std::vector<std::uint8_t> out;
        std::map<someip::Endpoint, std::uint32_t> sequences;
        for (const std::uint32_t word : {0xA1B2C3D4u, 0x00020004u, 0u, 0u, 0x00040000u, 101u}) {
            someip::appendBig(out, word);
        }
        std::uint32_t second = 0;
        for (const auto& datagram : m_datagrams) {
            std::uint32_t& sequence = sequences[datagram.from];
            const auto segment = isTcp(datagram) ? tcpSegment(datagram, sequence) : udpDatagram(datagram);
            sequence += static_cast<std::uint32_t>(datagram.bytes.size());
            const auto head = ipHeader(datagram, segment.size(), ++second);
            const auto size = static_cast<std::uint32_t>(head.size() + segment.size());
            for (const std::uint32_t word : {second, 0u, size, size}) {
                someip::appendBig(out, word);
            }
            out.insert(out.end(), head.begin(), head.end());
            out.insert(out.end(), segment.begin(), segment.end());
        }
        return {out.begin(), out.end()};
    }

    static void putAddress(std::vector<std::uint8_t>& out, const someip::Address& address) {
        if (address.isIpv6()) {
            someip::appendBig(out, address.high());
            someip::appendBig(out, address.low());
        } else {
            someip::appendBig(out, address.ipv4());
        }
    }

    static std::vector<std::uint8_t> ipHeader(const CapturedDatagram& datagram, std::size_t size,
                                              std::uint32_t number) {
        std::vector<std::uint8_t> out;
        const auto put = [&](auto value) { someip::appendBig(out, value); };
        const unsigned protocol = isTcp(datagram) ? someip::kProtocolTcp : someip::kProtocolUdp;
        if (datagram.from.address.isIpv6()) {
            put(0x60000000u);
            put(static_cast<std::uint16_t>(size));
            put(static_cast<std::uint16_t>(protocol << 8 | 0x40));
        } else {
            put(std::uint16_t{0x4500});
            put(static_cast<std::uint16_t>(size + 20));
            put(static_cast<std::uint16_t>(number));
            put(std::uint16_t{0});
            put(static_cast<std::uint16_t>(0x4000 | protocol));
            put(std::uint16_t{0});
        }
        putAddress(out, datagram.from.address);
        putAddress(out, datagram.to.address);
        return out;
    }

    static std::vector<std::uint8_t> tcpSegment(const CapturedDatagram& datagram, std::uint32_t sequence) {
        std::vector<std::uint8_t> out;
        someip::appendBig(out, datagram.from.port);
        someip::appendBig(out, datagram.to.port);
        for (const std::uint32_t word : {sequence, 1u, 0x50187FFFu, 0u}) {  // PSH and ACK
            someip::appendBig(out, word);
        }
        out.insert(out.end(), datagram.bytes.begin(), datagram.bytes.end());
        return out;
    }

    static std::vector<std::uint8_t> udpDatagram(const CapturedDatagram& datagram) {
        std::vector<std::uint8_t> out;
        const auto size = static_cast<std::uint16_t>(datagram.bytes.size() + 8);
        for (const std::uint16_t word : {datagram.from.port, datagram.to.port, size, std::uint16_t{0}}) {
            someip::appendBig(out, word);
        }
        out.insert(out.end(), datagram.bytes.begin(), datagram.bytes.end());
        if (datagram.from.address.isIpv6()) {  // which demands a checksum
            someip::storeBig(&out[6], checksum(datagram, out));
        }
        return out;
    }

    /// Of a UDP datagram with its addresses, protocol and length.
    static std::uint16_t checksum(const CapturedDatagram& datagram, const std::vector<std::uint8_t>& udp) {
        std::vector<std::uint8_t> all;
        putAddress(all, datagram.from.address);
        putAddress(all, datagram.to.address);
        someip::appendBig(all, static_cast<std::uint32_t>(udp.size()));
        someip::appendBig(all, std::uint32_t{someip::kProtocolUdp});
        all.insert(all.end(), udp.begin(), udp.end());
        all.resize((all.size() + 1) / 2 * 2);
        std::uint32_t sum = 0;
        for (std::size_t i = 0; i < all.size(); i += 2) {
            sum += someip::loadBig<std::uint16_t>(&all[i]);
            sum = (sum & 0xFFFF) + (sum >> 16);
        }
        return static_cast<std::uint16_t>(~sum);
    }

    TemporaryFolder m_folder;
    std::vector<CapturedDatagram> m_datagrams;
};

}  // namespace vlmTest
