#pragma once
/// SOME/IP-TP: splits messages that are larger than a datagram into segments, and joins them again.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <span>
#include <unordered_map>
#include <vector>

#include "someip/Endpoint.h"
#include "someip/Message.h"

namespace someip {

using Clock = std::chrono::steady_clock;

inline constexpr std::size_t kSegmentHeaderSize = 4;
/// Payload of every segment but the last; a multiple of 16.
inline constexpr std::size_t kMaxSegment = 1392;

/// The 32-bit word after the header of a segment.
struct SegmentHeader {
    std::uint32_t offset = 0;  ///< bytes, a multiple of 16
    bool more = false;

    static SegmentHeader read(const std::uint8_t* from) noexcept {
        const auto word = loadBig<std::uint32_t>(from);
        return {word & ~0xFu, (word & 1u) != 0};
    }
    void write(std::uint8_t* to) const noexcept { storeBig(to, offset | (more ? 1u : 0u)); }
};

/// Splits a payload into datagrams. `header` belongs to the unsegmented message. `sink` gets each datagram,
/// valid only during the call, and may return false to stop; then segment() returns false too.
bool segment(Header header, std::span<const std::uint8_t> payload,
             const std::function<bool(std::span<const std::uint8_t>)>& sink);

/// Segments with the same key belong to the same message.
struct SegmentKey {
    Endpoint sender;
    std::uint16_t service = 0;
    std::uint16_t method = 0;
    std::uint16_t client = 0;
    std::uint16_t session = 0;

    auto operator<=>(const SegmentKey&) const = default;
};

struct ReassemblyLimits {
    std::size_t maxMessageBytes = 1u << 20;
    std::size_t maxTotalBytes = 4u << 20;  ///< all open sets together
    std::size_t maxOpenSets = 64;
    std::chrono::milliseconds timeout{500};  ///< from the first segment of a set
};

/// Joins segments in any order. An exact repetition of a segment is a doubled datagram and is ignored. Any
/// other overlap, a gap at the time-out, two different ends, or an exceeded limit drops the whole set of
/// segments; the caller counts drops through dropped(). Uses no more memory than was received. One thread;
/// time is an argument.
class Reassembler {
  public:
    explicit Reassembler(const ReassemblyLimits& limits) : m_limits(limits) {}

    /// Takes one segment; `content` is everything after the 16 header bytes. Returns true when it completes
    /// its message, whose payload is then in `message` until the next call.
    bool add(const SegmentKey& key, std::span<const std::uint8_t> content, Clock::time_point now,
             std::vector<std::uint8_t>& message);
    /// Drops the sets that have timed out.
    void expire(Clock::time_point now);
    /// The next time at which expire() has work; time_point::max() when no set is open.
    Clock::time_point nextDeadline() const;
    /// Drops everything without counting it.
    void clear();

    std::size_t openSets() const noexcept { return m_sets.size(); }
    std::size_t heldBytes() const noexcept { return m_held; }
    /// The number of sets and malformed segments dropped since the start.
    std::uint64_t dropped() const noexcept { return m_dropped; }

  private:
    struct Set {
        SegmentKey key;
        Clock::time_point deadline;
        std::vector<std::uint8_t> front;  ///< bytes from 0 to the first gap
        std::map<std::uint32_t, std::vector<std::uint8_t>> ahead;
        std::size_t held = 0;
        std::size_t end = 0;  ///< size of the message, if endKnown
        bool endKnown = false;
        bool refused = false;  ///< dropped; kept so that later segments open no new set
    };
    using Sets = std::list<Set>;  ///< oldest first

    enum class Placed : std::uint8_t { Taken, Repeated, Refused };
    Placed place(Set& set, const SegmentHeader& segment, std::span<const std::uint8_t> bytes);
    void hold(Set& set, std::size_t bytes);
    Set& open(const SegmentKey& key, Clock::time_point now);
    void refuse(Set& set);
    void erase(Sets::iterator set);
    bool completedLately(const SegmentKey& key, Clock::time_point now) const;

    struct KeyHash {
        std::size_t operator()(const SegmentKey& key) const noexcept;
    };

    const ReassemblyLimits m_limits;
    Sets m_sets;
    std::unordered_map<SegmentKey, Sets::iterator, KeyHash> m_index;
    std::size_t m_held = 0;
    std::uint64_t m_dropped = 0;
    /// The last completed messages: a late duplicate of a segment belongs to one of them.
    struct Completed {
        SegmentKey key;
        Clock::time_point until;
    };
    std::vector<Completed> m_completed;
    std::size_t m_nextCompleted = 0;
};

}  // namespace someip
