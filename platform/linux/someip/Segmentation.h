#pragma once
/// SOME/IP-TP: splits messages that are larger than a datagram into segments, and joins them again.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
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

/// Joins segments in any order. Skips bytes that are there already. Drops a set when other bytes come for the
/// same place, when two segments disagree about the end, when a gap remains at the time-out, and at a limit;
/// then ignores its further segments until a first one opens the next message. After a completed message,
/// bytes that differ from it open the next message. With session 0, a first segment always opens a message.
/// Holds no more memory than was received, and the last completed messages, with which late segments are
/// compared. One thread; time is an argument.
class Reassembler {
  public:
    explicit Reassembler(const ReassemblyLimits& limits) : m_limits(limits) {}

    /// Takes one segment: `content` is what follows the 16 header bytes. True when it completed its message,
    /// whose payload is then in `message`, valid until the next call.
    bool add(const SegmentKey& key, std::span<const std::uint8_t> content, Clock::time_point now,
             std::span<const std::uint8_t>& message);
    /// Drops the sets whose time is over.
    void expire(Clock::time_point now);
    /// The next time at which expire() has work; time_point::max() when no set is open.
    Clock::time_point nextDeadline() const;
    /// Drops what a sender has begun of a service: it has restarted.
    void forget(const Endpoint& sender, std::uint16_t service);

    std::size_t openSets() const noexcept { return m_sets.size() - m_refused; }
    /// Bytes of the open sets; those of completed messages are no more than one message may have.
    std::size_t heldBytes() const noexcept { return m_held; }
    /// Messages that were begun and dropped since the start, and segments that were no segments.
    std::uint64_t dropped() const noexcept { return m_dropped; }
    /// Segments that repeat what is there, or belong to a message that was dropped before.
    std::uint64_t ignored() const noexcept { return m_ignored; }

  private:
    struct Set {
        SegmentKey key;
        Clock::time_point deadline;
        std::vector<std::uint8_t> front;  ///< bytes from 0 to the first gap
        std::map<std::uint32_t, std::vector<std::uint8_t>> ahead;
        std::size_t held = 0;
        std::size_t end = 0;  ///< size of the message, if endKnown
        bool endKnown = false;
        /// Bytes from 0 on that came again in order: should other bytes follow, they begin the next message.
        std::size_t again = 0;
        std::uint64_t segments = 0;  ///< that were not there yet
        bool repeats = false;        ///< so far all repeat the message that was completed before
        bool refused = false;        ///< dropped already; kept so that what still comes opens no new set
    };
    using Sets = std::list<Set>;  ///< oldest first

    enum class Placed : std::uint8_t {
        Taken,
        Repeated,
        Different,  ///< contradicts what is there
        Wrong,      ///< in itself
    };
    Placed place(Set& set, const SegmentHeader& segment, std::span<const std::uint8_t> bytes);
    bool agrees(const Set& set, const SegmentHeader& segment, std::span<const std::uint8_t> bytes) const;
    void insert(Set& set, std::size_t from, std::span<const std::uint8_t> bytes);
    void hold(Set& set, std::size_t bytes);
    Set* setFor(const SegmentKey& key, const SegmentHeader& segment, std::span<const std::uint8_t> bytes,
                Clock::time_point now);
    Set* open(const SegmentKey& key, bool first, Clock::time_point now);
    Set* openAgain(Set& set, std::size_t kept, Clock::time_point now);
    void refuse(Set& set);
    void erase(Sets::iterator set);
    void countIncomplete(const Set& set);
    void keep(Set& set, Clock::time_point now);
    bool repeatsCompleted(const SegmentKey& key, const SegmentHeader& segment,
                          std::span<const std::uint8_t> bytes) const;

    struct KeyHash {
        std::size_t operator()(const SegmentKey& key) const noexcept;
    };

    const ReassemblyLimits m_limits;
    Sets m_sets;
    std::unordered_map<SegmentKey, Sets::iterator, KeyHash> m_index;
    std::size_t m_refused = 0;  ///< of the sets
    Clock::time_point m_forgettingUntil =
        Clock::time_point::min();  ///< since more were refused than remembered
    std::size_t m_held = 0;
    std::uint64_t m_dropped = 0;
    std::uint64_t m_ignored = 0;
    /// The last messages that were completed: a doubled segment that comes late belongs to one of them.
    struct Completed {
        SegmentKey key;
        Clock::time_point until;
        std::vector<std::uint8_t> bytes;
    };
    std::deque<Completed> m_completed;
    std::size_t m_completedBytes = 0;
};

}  // namespace someip
