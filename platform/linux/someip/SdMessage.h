#pragma once
/// Service discovery messages: entries, options and their encoding.
#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "someip/Endpoint.h"
#include "someip/Message.h"

namespace someip {

inline constexpr std::uint16_t kSdService = 0xFFFF;
inline constexpr std::uint16_t kSdMethod = 0x8100;
inline constexpr std::uint16_t kAnyInstance = 0xFFFF;
inline constexpr std::uint8_t kAnyMajor = 0xFF;
inline constexpr std::uint32_t kAnyMinor = 0xFFFFFFFF;
inline constexpr std::uint32_t kTtlUntilReboot = 0xFFFFFF;
/// Bytes of one discovery message without the UDP header, at most.
inline constexpr std::size_t kMaxSdMessage = 1380;

enum class SdEntryType : std::uint8_t {
    Find = 0x00,
    Offer = 0x01,         ///< TTL 0: stop offer
    Subscribe = 0x06,     ///< TTL 0: stop subscribe
    SubscribeAck = 0x07,  ///< TTL 0: refusal
};

enum class SdOptionType : std::uint8_t {
    Configuration = 0x01,
    LoadBalancing = 0x02,
    Ipv4Endpoint = 0x04,
    Ipv6Endpoint = 0x06,
    Ipv4Multicast = 0x14,
    Ipv6Multicast = 0x16,
    Ipv4SdEndpoint = 0x24,
    Ipv6SdEndpoint = 0x26,
};

inline constexpr std::uint8_t kProtocolTcp = 0x06;
inline constexpr std::uint8_t kProtocolUdp = 0x11;

/// One entry with the endpoints from its options.
struct SdEntry {
    SdEntryType type = SdEntryType::Find;
    std::uint16_t service = 0;
    std::uint16_t instance = 0;
    std::uint8_t major = 0;
    std::uint32_t ttl = 0;              ///< seconds, 24 bits
    std::uint32_t minor = 0;            ///< service entries
    std::uint8_t counter = 0;           ///< eventgroup entries, 4 bits
    bool initialDataRequested = false;  ///< subscribe entries
    std::uint16_t eventgroup = 0;       ///< eventgroup entries
    std::vector<Endpoint> unicast;      ///< endpoint options for UDP and TCP, in order
    bool otherEndpoint = false;         ///< there are endpoint options for another protocol
    std::vector<Endpoint> multicast;    ///< multicast options for UDP, in order

    /// Returns the first endpoint for that protocol; nullptr if there is none.
    const Endpoint* over(Protocol protocol) const noexcept {
        const auto found = std::ranges::find(unicast, protocol, &Endpoint::protocol);
        return found == unicast.end() ? nullptr : &*found;
    }
    /// Returns true for two different endpoints of one protocol: none of them can be preferred.
    bool contradictory() const noexcept {
        return std::ranges::any_of(unicast, [&](const Endpoint& one) { return one != *over(one.protocol); });
    }
    bool isEventgroupEntry() const noexcept {
        return type == SdEntryType::Subscribe || type == SdEntryType::SubscribeAck;
    }
};

struct SdMessage {
    std::uint16_t session = 0;
    bool reboot = false;
    bool unicast = false;
    bool explicitInitialData = false;  ///< the sender follows the entries' initialDataRequested
    std::vector<SdEntry> entries;
};

/// Reads one discovery message. Returns false, with `error`, when the header, a length or an option index is
/// wrong. Entries of unknown type, unknown options, and endpoints other than those for UDP and TCP are
/// ignored. Link-local addresses are without their interface.
bool parseSdMessage(const Header& header, std::span<const std::uint8_t> body, SdMessage& out,
                    std::string& error);

/// Collects entries for one receiver and packs them into as few messages as possible. Each message contains
/// equal options only once.
class SdMessageBuilder {
  public:
    void add(SdEntry entry) { m_entries.push_back({std::move(entry), false}); }
    /// Adds two entries with equal options that must follow each other in one message.
    void addPair(SdEntry first, SdEntry second) {
        m_entries.push_back({std::move(first), true});
        m_entries.push_back({std::move(second), false});
    }
    /// Adds the entry unless one for the same instance is waiting: many equal requests in one message get one
    /// answer.
    void addOnce(SdEntry entry);
    bool empty() const noexcept { return m_entries.empty(); }

    /// Writes and removes all entries. Calls `nextSession` once per message for session and reboot flag.
    struct Session {
        std::uint16_t number;
        bool reboot;
    };
    template <typename NextSession>
    std::vector<std::vector<std::uint8_t>> take(NextSession&& nextSession) {
        std::vector<std::vector<std::uint8_t>> messages;
        for (std::size_t first = 0; first < m_entries.size();) {
            messages.emplace_back();
            first += write(first, nextSession(), messages.back());
        }
        m_entries.clear();
        return messages;
    }

  private:
    std::size_t write(std::size_t first, Session session, std::vector<std::uint8_t>& out) const;

    struct Waiting {
        SdEntry entry;
        bool withNext;  ///< not parted from the entry after it
    };
    std::vector<Waiting> m_entries;
};

}  // namespace someip
