#pragma once
/// SOME/IP-TP: messages larger than a datagram travel as segments.
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

/// The word behind the header of a segment.
struct SegmentHeader {
    std::uint32_t offset = 0;  ///< bytes, a multiple of 16
    bool more = false;

    static SegmentHeader read(const std::uint8_t* from) noexcept {
        const auto word = loadBig<std::uint32_t>(from);
        return {word & ~0xFu, (word & 1u) != 0};
    }
    void write(std::uint8_t* to) const noexcept { storeBig(to, offset | (more ? 1u : 0u)); }
};

/// Cuts a payload into datagrams. `header` is the unsegmented message's; `sink` gets each datagram, which is
/// valid during the call only, and stops the work by returning false. False when it did.
bool segment(Header header, std::span<const std::uint8_t> payload,
             const std::function<bool(std::span<const std::uint8_t>)>& sink);

/// What makes segments parts of one message.
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
    std::size_t maxTotalBytes = 4u << 20;  ///< held by all open sets together
    std::size_t maxOpenSets = 64;
    std::chrono::milliseconds timeout{500};  ///< from the first segment of a set
};

/// Joins segments, whatever their order. A segment that comes again byte for byte is a doubled datagram and
/// passed over; any other overlap, a gap at the time-out, a contradiction about the end or a cap that is
/// passed drops the whole set. What is dropped is counted by the caller through `dropped()`.
/// Holds no more memory than was received. One thread; time is an argument.
class Reassembler {
  public:
    explicit Reassembler(const ReassemblyLimits& limits) : m_limits(limits) {}

    /// Takes one segment: `content` is what follows the 16 header bytes. True when it completed its message,
    /// whose payload is then in `message` until the next call.
    bool add(const SegmentKey& key, std::span<const std::uint8_t> content, Clock::time_point now,
             std::vector<std::uint8_t>& message);
    /// Drops the sets whose time is over.
    void expire(Clock::time_point now);
    /// When expire() has something to do next; time_point::max() when nothing is open.
    Clock::time_point nextDeadline() const;
    /// Drops everything, uncounted.
    void clear();

    std::size_t openSets() const noexcept { return m_sets.size(); }
    std::size_t heldBytes() const noexcept { return m_held; }
    /// Sets dropped (and segments that were no segments) since the start.
    std::uint64_t dropped() const noexcept { return m_dropped; }

  private:
    struct Set {
        SegmentKey key;
        Clock::time_point deadline;
        std::vector<std::uint8_t> front;  ///< bytes from 0 on without a gap
        std::map<std::uint32_t, std::vector<std::uint8_t>> ahead;
        std::size_t held = 0;
        std::size_t end = 0;  ///< size of the message once the last segment is there
        bool endKnown = false;
        bool refused = false;  ///< dropped already; kept so that what still comes opens no new set
    };
    using Sets = std::list<Set>;  ///< in order of age

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
    /// The last messages that were completed: a doubled segment that comes late belongs to one of them.
    struct Completed {
        SegmentKey key;
        Clock::time_point until;
    };
    std::vector<Completed> m_completed;
    std::size_t m_nextCompleted = 0;
};

}  // namespace someip
