#include "someip/SdMessage.h"

#include <algorithm>

namespace someip {

namespace {

constexpr std::size_t kEntrySize = 16;
constexpr std::size_t kSdFixedSize = 12;  // flags, length of entries, length of options
constexpr std::uint8_t kFlagReboot = 0x80;
constexpr std::uint8_t kFlagUnicast = 0x40;
constexpr std::uint8_t kFlagExplicitInitialData = 0x20;
constexpr std::uint8_t kInitialDataRequested = 0x80;  // of the byte with the counter
constexpr std::size_t kIpv4Size = 4;
constexpr std::size_t kIpv6Size = 16;
constexpr std::size_t kOptionHeaderSize = 3;   // length and type
constexpr std::size_t kAddressOptionRest = 5;  // reserved; after the address: reserved, protocol, port
constexpr std::size_t kMaxRun = 15;            // options of one run: 4 bits

/// The used part of an option. An option of another kind keeps its index.
struct Option {
    enum Kind : std::uint8_t { Other, Unicast, Multicast, OtherUnicast } kind = Other;
    Endpoint endpoint;

    bool operator==(const Option&) const = default;
};

constexpr bool isIpv6(SdOptionType type) noexcept {
    return type == SdOptionType::Ipv6Endpoint || type == SdOptionType::Ipv6Multicast ||
           type == SdOptionType::Ipv6SdEndpoint;
}

/// The bytes of the address in an option of that type; 0 if there is none.
constexpr std::size_t addressSize(SdOptionType type) noexcept {
    const bool ipv4 = type == SdOptionType::Ipv4Endpoint || type == SdOptionType::Ipv4Multicast ||
                      type == SdOptionType::Ipv4SdEndpoint;
    return isIpv6(type) ? kIpv6Size : ipv4 ? kIpv4Size : 0;
}

/// Reads an option from its address on.
Option addressOption(SdOptionType type, const std::uint8_t* bytes) {
    Option option;
    option.endpoint.address =
        isIpv6(type) ? Address::ipv6(loadBig<std::uint64_t>(bytes), loadBig<std::uint64_t>(bytes + 8))
                     : Address(loadBig<std::uint32_t>(bytes));
    bytes += addressSize(type);
    const std::uint8_t protocol = bytes[1];
    option.endpoint.port = loadBig<std::uint16_t>(bytes + 2);
    option.endpoint.protocol = protocol == kProtocolTcp ? Protocol::Tcp : Protocol::Udp;
    if (type == SdOptionType::Ipv4Endpoint || type == SdOptionType::Ipv6Endpoint) {
        option.kind =
            protocol == kProtocolUdp || protocol == kProtocolTcp ? Option::Unicast : Option::OtherUnicast;
    } else if ((type == SdOptionType::Ipv4Multicast || type == SdOptionType::Ipv6Multicast) &&
               protocol == kProtocolUdp) {
        option.kind = Option::Multicast;
    }
    return option;
}

bool parseOptions(std::span<const std::uint8_t> bytes, std::vector<Option>& out, std::string& error) {
    while (!bytes.empty()) {
        if (bytes.size() < kOptionHeaderSize) {
            error = "option " + std::to_string(out.size()) + " is cut off";
            return false;
        }
        const std::size_t length = loadBig<std::uint16_t>(bytes.data());
        if (length == 0 || length > bytes.size() - kOptionHeaderSize) {
            error = "option " + std::to_string(out.size()) + " has length " + std::to_string(length) +
                    " where " + std::to_string(bytes.size() - kOptionHeaderSize) + " bytes are left";
            return false;
        }
        Option option;
        const auto type = static_cast<SdOptionType>(bytes[2]);
        if (const std::size_t size = addressSize(type); size != 0) {
            if (length != size + kAddressOptionRest) {
                error = std::string(size == kIpv6Size ? "IPv6" : "IPv4") + " option " +
                        std::to_string(out.size()) + " has length " + std::to_string(length);
                return false;
            }
            option = addressOption(type, bytes.data() + kOptionHeaderSize + 1);
        }
        out.push_back(option);
        bytes = bytes.subspan(kOptionHeaderSize + length);
    }
    return true;
}

bool collect(const std::vector<Option>& options, std::size_t first, std::size_t count, SdEntry& entry) {
    if (count == 0) {
        return true;
    }
    if (first + count > options.size()) {
        return false;
    }
    for (std::size_t i = first; i < first + count; ++i) {
        if (options[i].kind == Option::Unicast) {
            entry.unicast.push_back(options[i].endpoint);
        } else if (options[i].kind == Option::Multicast) {
            entry.multicast.push_back(options[i].endpoint);
        } else if (options[i].kind == Option::OtherUnicast) {
            entry.otherEndpoint = true;
        }
    }
    return true;
}

void appendEntry(std::vector<std::uint8_t>& out, const SdEntry& entry, std::size_t firstOption,
                 std::size_t options) {
    out.push_back(static_cast<std::uint8_t>(entry.type));
    out.push_back(static_cast<std::uint8_t>(firstOption));
    out.push_back(0);  // no second run
    out.push_back(static_cast<std::uint8_t>(options << 4));
    appendBig(out, entry.service);
    appendBig(out, entry.instance);
    appendBig(out, (std::uint32_t{entry.major} << 24) | (entry.ttl & 0xFFFFFFu));
    appendBig(out, entry.isEventgroupEntry()
                       ? (std::uint32_t{entry.initialDataRequested ? kInitialDataRequested : 0u} << 16) |
                             (std::uint32_t{entry.counter & 0x0Fu} << 16) | entry.eventgroup
                       : entry.minor);
}

std::size_t sizeOf(const Option& option) noexcept {
    return kOptionHeaderSize + kAddressOptionRest +
           (option.endpoint.address.isIpv6() ? kIpv6Size : kIpv4Size);
}

void appendOption(std::vector<std::uint8_t>& out, const Option& option) {
    const Address& address = option.endpoint.address;
    const bool unicast = option.kind == Option::Unicast;
    appendBig(out, static_cast<std::uint16_t>(sizeOf(option) - kOptionHeaderSize));
    if (address.isIpv6()) {
        out.push_back(
            static_cast<std::uint8_t>(unicast ? SdOptionType::Ipv6Endpoint : SdOptionType::Ipv6Multicast));
        out.push_back(0);
        appendBig(out, address.high());
        appendBig(out, address.low());
    } else {
        out.push_back(
            static_cast<std::uint8_t>(unicast ? SdOptionType::Ipv4Endpoint : SdOptionType::Ipv4Multicast));
        out.push_back(0);
        appendBig(out, address.ipv4());
    }
    out.push_back(0);
    out.push_back(option.endpoint.protocol == Protocol::Tcp ? kProtocolTcp : kProtocolUdp);
    appendBig(out, option.endpoint.port);
}

}  // namespace

bool parseSdMessage(const Header& header, std::span<const std::uint8_t> body, SdMessage& out,
                    std::string& error) {
    if (header.service != kSdService || header.method != kSdMethod ||
        header.type != static_cast<std::uint8_t>(MessageType::Notification) || header.returnCode != 0 ||
        header.protocolVersion != kProtocolVersion || header.interfaceVersion != 1 || header.session == 0) {
        error = "the header is not one of service discovery";
        return false;
    }
    if (body.size() < kSdFixedSize) {
        error = "the message ends before its entries";
        return false;
    }
    out.session = header.session;
    out.reboot = (body[0] & kFlagReboot) != 0;
    out.unicast = (body[0] & kFlagUnicast) != 0;
    out.explicitInitialData = (body[0] & kFlagExplicitInitialData) != 0;
    out.entries.clear();
    const std::size_t entriesSize = loadBig<std::uint32_t>(body.data() + 4);
    if (entriesSize % kEntrySize != 0 || entriesSize > body.size() - kSdFixedSize) {
        error = "the length of the entries is " + std::to_string(entriesSize);
        return false;
    }
    const auto entries = body.subspan(8, entriesSize);
    const std::size_t optionsSize = loadBig<std::uint32_t>(body.data() + 8 + entriesSize);
    if (optionsSize > body.size() - kSdFixedSize - entriesSize) {
        error = "the length of the options is " + std::to_string(optionsSize);
        return false;
    }
    std::vector<Option> options;
    if (!parseOptions(body.subspan(kSdFixedSize + entriesSize, optionsSize), options, error)) {
        return false;
    }
    for (std::size_t at = 0; at < entries.size(); at += kEntrySize) {
        const std::uint8_t* bytes = entries.data() + at;
        SdEntry entry;
        entry.type = static_cast<SdEntryType>(bytes[0]);
        const bool serviceEntry = entry.type == SdEntryType::Find || entry.type == SdEntryType::Offer;
        if (!serviceEntry && !entry.isEventgroupEntry()) {
            continue;
        }
        entry.service = loadBig<std::uint16_t>(bytes + 4);
        entry.instance = loadBig<std::uint16_t>(bytes + 6);
        entry.major = bytes[8];
        entry.ttl = loadBig<std::uint32_t>(bytes + 8) & 0xFFFFFFu;
        if (serviceEntry) {
            entry.minor = loadBig<std::uint32_t>(bytes + 12);
        } else {
            entry.counter = bytes[13] & 0x0F;
            entry.initialDataRequested = (bytes[13] & kInitialDataRequested) != 0;
            entry.eventgroup = loadBig<std::uint16_t>(bytes + 14);
        }
        if (!collect(options, bytes[1], bytes[3] >> 4, entry) ||
            !collect(options, bytes[2], bytes[3] & 0x0Fu, entry)) {
            error = "entry " + std::to_string(at / kEntrySize) + " names an option that is not there";
            return false;
        }
        out.entries.push_back(std::move(entry));
    }
    return true;
}

void SdMessageBuilder::addOnce(SdEntry entry) {
    const bool waits = std::ranges::any_of(m_entries, [&](const Waiting& waiting) {
        const SdEntry& one = waiting.entry;
        return one.type == entry.type && one.service == entry.service && one.instance == entry.instance &&
               one.major == entry.major && one.ttl == entry.ttl;
    });
    if (!waits) {
        add(std::move(entry));
    }
}

std::size_t SdMessageBuilder::write(std::size_t first, Session session,
                                    std::vector<std::uint8_t>& out) const {
    std::vector<Option> options;
    std::vector<std::uint8_t> optionBytes;
    std::vector<std::uint8_t> entryBytes;
    std::size_t taken = 0;
    while (first + taken < m_entries.size()) {
        const auto& [entry, withNext] = m_entries[first + taken];
        std::vector<Option> wanted;
        for (const Endpoint& endpoint : entry.unicast) {
            wanted.push_back({Option::Unicast, endpoint});
        }
        for (const Endpoint& endpoint : entry.multicast) {
            wanted.push_back({Option::Multicast, endpoint});
        }
        wanted.resize(std::min(wanted.size(), kMaxRun));
        const auto found = std::search(options.begin(), options.end(), wanted.begin(), wanted.end());
        const auto index = static_cast<std::size_t>(found - options.begin());
        const bool isNew = found == options.end();
        std::size_t size = kHeaderSize + kSdFixedSize + entryBytes.size() + (withNext ? 2 : 1) * kEntrySize +
                           optionBytes.size();
        for (const Option& option : wanted) {
            size += isNew ? sizeOf(option) : 0;
        }
        // The size limit also keeps option indexes within 8 bits.
        if (taken != 0 && size > kMaxSdMessage) {
            break;
        }
        if (isNew) {
            options.insert(options.end(), wanted.begin(), wanted.end());
            for (const Option& option : wanted) {
                appendOption(optionBytes, option);
            }
        }
        appendEntry(entryBytes, entry, index, wanted.size());
        ++taken;
    }

    const std::size_t bodySize = kSdFixedSize + entryBytes.size() + optionBytes.size();
    Header header;
    header.service = kSdService;
    header.method = kSdMethod;
    header.length = static_cast<std::uint32_t>(kLengthCovers + bodySize);
    header.session = session.number;
    header.interfaceVersion = 1;
    out.reserve(kHeaderSize + bodySize);
    out.resize(kHeaderSize);
    writeHeader(header, out.data());
    const std::uint32_t flags = (session.reboot ? kFlagReboot : 0u) | kFlagUnicast | kFlagExplicitInitialData;
    appendBig(out, flags << 24);
    appendBig(out, static_cast<std::uint32_t>(entryBytes.size()));
    out.insert(out.end(), entryBytes.begin(), entryBytes.end());
    appendBig(out, static_cast<std::uint32_t>(optionBytes.size()));
    out.insert(out.end(), optionBytes.begin(), optionBytes.end());
    return taken;
}

}  // namespace someip
