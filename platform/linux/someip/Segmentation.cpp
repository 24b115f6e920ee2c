#include "someip/Segmentation.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace someip {

namespace {
constexpr std::size_t kCompletedKept = 64;
/// Memory for a segment that waits for its predecessors, besides its bytes; without it many small segments
/// would use far more memory than the limit.
constexpr std::size_t kPieceOverhead = 96;
/// Refused messages that are remembered, for each set that may be open.
constexpr std::size_t kRefusedPerOpenSet = 4;
}  // namespace

bool segment(Header header, std::span<const std::uint8_t> payload,
             const std::function<bool(std::span<const std::uint8_t>)>& sink) {
    header.type |= kSegmentFlag;
    std::array<std::uint8_t, kHeaderSize + kSegmentHeaderSize + kMaxSegment> datagram{};
    for (std::size_t offset = 0; offset < payload.size();) {
        const std::size_t size = std::min(kMaxSegment, payload.size() - offset);
        const bool more = offset + size < payload.size();
        header.length = static_cast<std::uint32_t>(kLengthCovers + kSegmentHeaderSize + size);
        writeHeader(header, datagram.data());
        SegmentHeader{static_cast<std::uint32_t>(offset), more}.write(datagram.data() + kHeaderSize);
        std::memcpy(datagram.data() + kHeaderSize + kSegmentHeaderSize, payload.data() + offset, size);
        if (!sink({datagram.data(), kHeaderSize + kSegmentHeaderSize + size})) {
            return false;
        }
        offset += size;
    }
    return true;
}

std::size_t Reassembler::KeyHash::operator()(const SegmentKey& key) const noexcept {
    const std::uint64_t ids = (std::uint64_t{key.service} << 48) | (std::uint64_t{key.method} << 32) |
                              (std::uint64_t{key.client} << 16) | key.session;
    return std::hash<std::uint64_t>()(ids) ^ (std::hash<Endpoint>()(key.sender) * 0x9E3779B97F4A7C15u);
}

bool Reassembler::add(const SegmentKey& key, std::span<const std::uint8_t> content, Clock::time_point now,
                      std::span<const std::uint8_t>& message) {
    expire(now);
    if (content.size() <= kSegmentHeaderSize) {
        ++m_dropped;
        return false;
    }
    const auto header = SegmentHeader::read(content.data());
    const auto bytes = content.subspan(kSegmentHeaderSize);
    const bool first = header.offset == 0;
    Set* set = setFor(key, header, bytes, now);
    if (set == nullptr) {
        return false;
    }
    auto placed = place(*set, header, bytes);
    const bool begins =
        placed == Placed::Different && (first || (set->again != 0 && set->again == header.offset));
    if (begins || (placed == Placed::Repeated && first && key.session == 0 && set->held > bytes.size())) {
        set = openAgain(*set, first ? 0 : set->again, now);
        if (set == nullptr) {
            return false;
        }
        placed = place(*set, header, bytes);
    }
    if (placed == Placed::Repeated) {
        ++m_ignored;
        return false;
    }
    ++set->segments;
    if (placed != Placed::Taken || m_held > m_limits.maxTotalBytes) {
        refuse(*set);
        return false;
    }
    if (!set->endKnown || set->front.size() != set->end) {
        return false;
    }
    keep(*set, now);
    message = m_completed.back().bytes;
    return true;
}

/// The set that the segment belongs to; none when it is ignored or refused.
Reassembler::Set* Reassembler::setFor(const SegmentKey& key, const SegmentHeader& segment,
                                      std::span<const std::uint8_t> bytes, Clock::time_point now) {
    const bool first = segment.offset == 0;
    const auto known = m_index.find(key);
    if (known == m_index.end()) {
        const bool repeats = repeatsCompleted(key, segment, bytes);
        if (repeats && !first) {
            ++m_ignored;
            return nullptr;
        }
        Set* const set = open(key, first, now);
        if (set != nullptr) {
            set->repeats = repeats;
        }
        return set;
    }
    Set& set = *known->second;
    if (set.refused) {
        if (!first) {
            ++m_ignored;
            return nullptr;
        }
        return openAgain(set, 0, now);
    }
    set.repeats = set.repeats && repeatsCompleted(key, segment, bytes);
    return &set;
}

/// Whether the bytes and the end are those that the set has.
bool Reassembler::agrees(const Set& set, const SegmentHeader& segment,
                         std::span<const std::uint8_t> bytes) const {
    const std::size_t from = segment.offset;
    const std::size_t to = from + bytes.size();
    if (set.endKnown && (segment.more ? to >= set.end : to != set.end)) {
        return false;
    }
    if (!segment.more && !set.endKnown) {
        const auto reached = set.ahead.empty()
                                 ? set.front.size()
                                 : set.ahead.rbegin()->first + set.ahead.rbegin()->second.size();
        if (reached >= to) {
            return false;
        }
    }
    const auto same = [&](std::size_t start, std::span<const std::uint8_t> held) {
        const std::size_t low = std::max(from, start);
        const std::size_t high = std::min(to, start + held.size());
        return low >= high ||
               std::memcmp(held.data() + (low - start), bytes.data() + (low - from), high - low) == 0;
    };
    if (!same(0, set.front)) {
        return false;
    }
    auto piece = set.ahead.upper_bound(segment.offset);
    if (piece != set.ahead.begin()) {
        --piece;
    }
    for (; piece != set.ahead.end() && piece->first < to; ++piece) {
        if (!same(piece->first, piece->second)) {
            return false;
        }
    }
    return true;
}

Reassembler::Placed Reassembler::place(Set& set, const SegmentHeader& segment,
                                       std::span<const std::uint8_t> bytes) {
    const std::size_t from = segment.offset;
    const std::size_t to = from + bytes.size();
    if (to > m_limits.maxMessageBytes || (segment.more && bytes.size() % 16 != 0)) {
        return Placed::Wrong;
    }
    if (!agrees(set, segment, bytes)) {
        return Placed::Different;
    }
    if (!segment.more) {
        set.end = to;
        set.endKnown = true;
    }
    // What is not there yet: from the front on, between the pieces ahead.
    bool taken = false;
    std::size_t at = std::max(from, set.front.size());
    while (at < to) {
        auto next = set.ahead.upper_bound(static_cast<std::uint32_t>(at));
        if (next != set.ahead.begin()) {
            const auto& piece = *std::prev(next);
            at = std::max(at, piece.first + piece.second.size());
        }
        const std::size_t upTo = next == set.ahead.end() ? to : std::min<std::size_t>(to, next->first);
        if (at < upTo) {
            insert(set, at, bytes.subspan(at - from, upTo - at));
            taken = true;
        }
        at = std::max({at, upTo, set.front.size()});
    }
    if (taken) {
        return Placed::Taken;
    }
    if (from == 0 || from == set.again) {
        set.again = to;
    }
    return Placed::Repeated;
}

/// Takes bytes that overlap with nothing.
void Reassembler::insert(Set& set, std::size_t from, std::span<const std::uint8_t> bytes) {
    if (from != set.front.size()) {
        hold(set, bytes.size() + kPieceOverhead);
        set.ahead.emplace(static_cast<std::uint32_t>(from),
                          std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
        return;
    }
    hold(set, bytes.size());
    set.front.insert(set.front.end(), bytes.begin(), bytes.end());
    while (!set.ahead.empty() && set.ahead.begin()->first == set.front.size()) {
        const auto& joined = set.ahead.begin()->second;
        set.front.insert(set.front.end(), joined.begin(), joined.end());
        set.ahead.erase(set.ahead.begin());
        set.held -= kPieceOverhead;
        m_held -= kPieceOverhead;
    }
}

void Reassembler::hold(Set& set, std::size_t bytes) {
    set.held += bytes;
    m_held += bytes;
}

/// None when as many as may be are open: then the message is refused as a whole, and counted once. Where even
/// the refused ones are too many to remember, it is counted by its first segment.
Reassembler::Set* Reassembler::open(const SegmentKey& key, bool first, Clock::time_point now) {
    bool full = openSets() >= m_limits.maxOpenSets;
    if (full) {
        // What only repeats a complete message is not worth a place.
        const auto repeat = std::ranges::find_if(m_sets, &Set::repeats);
        if (repeat != m_sets.end()) {
            countIncomplete(*repeat);
            erase(repeat);
            full = false;
        }
    }
    if (full && m_refused >= kRefusedPerOpenSet * m_limits.maxOpenSets) {
        m_forgettingUntil = now + m_limits.timeout;
        ++(first ? m_dropped : m_ignored);
        return nullptr;
    }
    if (!first && now < m_forgettingUntil) {
        ++m_ignored;  // probably the rest of one that was refused and not remembered
        return nullptr;
    }
    m_sets.emplace_back();
    Set& set = m_sets.back();
    set.key = key;
    set.deadline = now + m_limits.timeout;
    m_index.emplace(key, std::prev(m_sets.end()));
    if (!full) {
        return &set;
    }
    refuse(set);
    return nullptr;
}

/// Drops a set and opens the next one of its key, with the first `kept` bytes.
Reassembler::Set* Reassembler::openAgain(Set& set, std::size_t kept, Clock::time_point now) {
    const SegmentKey key = set.key;
    auto front = std::move(set.front);
    front.resize(kept);
    front.shrink_to_fit();
    countIncomplete(set);
    erase(m_index.find(key)->second);
    Set* next = open(key, true, now);
    if (next != nullptr) {
        next->front = std::move(front);
        hold(*next, kept);
    }
    return next;
}

void Reassembler::refuse(Set& set) {
    countIncomplete(set);
    m_held -= set.held;
    set.held = 0;
    set.front = {};
    set.ahead.clear();
    set.repeats = false;
    set.refused = true;
    ++m_refused;
}

void Reassembler::countIncomplete(const Set& set) {
    if (set.repeats) {
        m_ignored += set.segments;
    } else if (!set.refused) {
        ++m_dropped;
    }
}

void Reassembler::erase(Sets::iterator set) {
    m_held -= set->held;
    m_refused -= set->refused ? 1 : 0;
    m_index.erase(set->key);
    m_sets.erase(set);
}

void Reassembler::expire(Clock::time_point now) {
    while (!m_sets.empty() && m_sets.front().deadline <= now) {
        countIncomplete(m_sets.front());
        erase(m_sets.begin());
    }
    while (!m_completed.empty() && m_completed.front().until <= now) {
        m_completedBytes -= m_completed.front().bytes.size();
        m_completed.pop_front();
    }
}

Clock::time_point Reassembler::nextDeadline() const {
    return m_sets.empty() ? Clock::time_point::max() : m_sets.front().deadline;
}

void Reassembler::forget(const Endpoint& sender, std::uint16_t service) {
    const auto concerned = [&](const SegmentKey& key) {
        return key.sender == sender && key.service == service;
    };
    for (auto set = m_sets.begin(); set != m_sets.end();) {
        const auto next = std::next(set);
        if (concerned(set->key)) {
            countIncomplete(*set);
            erase(set);
        }
        set = next;
    }
    std::erase_if(m_completed, [&](const Completed& one) {
        m_completedBytes -= concerned(one.key) ? one.bytes.size() : 0;
        return concerned(one.key);
    });
}

/// Moves a complete set to the messages that late segments are compared with.
void Reassembler::keep(Set& set, Clock::time_point now) {
    m_completed.push_back({set.key, now + m_limits.timeout, std::move(set.front)});
    m_completedBytes += m_completed.back().bytes.size();
    erase(m_index.find(m_completed.back().key)->second);
    while (m_completed.size() > 1 &&
           (m_completed.size() > kCompletedKept || m_completedBytes > m_limits.maxMessageBytes)) {
        m_completedBytes -= m_completed.front().bytes.size();
        m_completed.pop_front();
    }
}

bool Reassembler::repeatsCompleted(const SegmentKey& key, const SegmentHeader& segment,
                                   std::span<const std::uint8_t> bytes) const {
    const auto found = std::find_if(m_completed.rbegin(), m_completed.rend(),
                                    [&](const Completed& one) { return one.key == key; });
    if (found == m_completed.rend()) {
        return false;
    }
    const std::size_t to = segment.offset + bytes.size();
    return (segment.more ? to < found->bytes.size() : to == found->bytes.size()) &&
           std::memcmp(found->bytes.data() + segment.offset, bytes.data(), bytes.size()) == 0;
}

}  // namespace someip
