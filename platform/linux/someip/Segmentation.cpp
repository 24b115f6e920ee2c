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
                      std::vector<std::uint8_t>& message) {
    expire(now);
    if (content.size() <= kSegmentHeaderSize) {
        ++m_dropped;
        return false;
    }
    const auto header = SegmentHeader::read(content.data());
    const auto bytes = content.subspan(kSegmentHeaderSize);
    // Session 0 means that the sender does not number its messages: the next one has the same key.
    if (key.session != 0 && completedLately(key, now)) {
        return false;
    }
    const auto known = m_index.find(key);
    Set& set = known != m_index.end() ? *known->second : open(key, now);
    if (set.refused) {
        return false;
    }
    if (place(set, header, bytes) == Placed::Refused || m_held > m_limits.maxTotalBytes) {
        refuse(set);
        return false;
    }
    if (!set.endKnown || set.front.size() != set.end || !set.ahead.empty()) {
        return false;
    }
    message = std::move(set.front);
    const Completed completed{key, now + m_limits.timeout};
    if (m_completed.size() < kCompletedKept) {
        m_completed.push_back(completed);
    } else {
        m_completed[m_nextCompleted] = completed;
        m_nextCompleted = (m_nextCompleted + 1) % kCompletedKept;
    }
    erase(m_index.find(key)->second);
    return true;
}

Reassembler::Placed Reassembler::place(Set& set, const SegmentHeader& segment,
                                       std::span<const std::uint8_t> bytes) {
    const std::size_t from = segment.offset;
    const std::size_t to = from + bytes.size();
    if (to > m_limits.maxMessageBytes || (segment.more && bytes.size() % 16 != 0)) {
        return Placed::Refused;
    }
    const auto next = set.ahead.lower_bound(segment.offset);
    const bool agreesOnEnd = segment.more ? !set.endKnown || to < set.end : set.endKnown && to == set.end;
    if (to <= set.front.size()) {
        const bool same = std::memcmp(set.front.data() + from, bytes.data(), bytes.size()) == 0;
        return same && agreesOnEnd ? Placed::Repeated : Placed::Refused;
    }
    if (from < set.front.size()) {
        return Placed::Refused;
    }
    if (next != set.ahead.end() && next->first == segment.offset) {
        const bool same = std::ranges::equal(next->second, bytes);
        return same && agreesOnEnd ? Placed::Repeated : Placed::Refused;
    }
    if (next != set.ahead.end() && to > next->first) {
        return Placed::Refused;
    }
    if (next != set.ahead.begin()) {
        const auto& before = *std::prev(next);
        if (before.first + before.second.size() > from) {
            return Placed::Refused;
        }
    }
    if (!segment.more) {
        const std::size_t reached = set.ahead.empty()
                                        ? set.front.size()
                                        : set.ahead.rbegin()->first + set.ahead.rbegin()->second.size();
        if (set.endKnown || reached > to) {
            return Placed::Refused;
        }
        set.end = to;
        set.endKnown = true;
    } else if (set.endKnown && to >= set.end) {
        return Placed::Refused;
    }

    if (from != set.front.size()) {
        hold(set, bytes.size() + kPieceOverhead);
        set.ahead.emplace_hint(next, segment.offset, std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
        return Placed::Taken;
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
    return Placed::Taken;
}

void Reassembler::hold(Set& set, std::size_t bytes) {
    set.held += bytes;
    m_held += bytes;
}

Reassembler::Set& Reassembler::open(const SegmentKey& key, Clock::time_point now) {
    if (m_sets.size() >= m_limits.maxOpenSets) {
        // A new set is more likely to complete than the oldest.
        if (!m_sets.front().refused) {
            ++m_dropped;
        }
        erase(m_sets.begin());
    }
    m_sets.emplace_back();
    Set& set = m_sets.back();
    set.key = key;
    set.deadline = now + m_limits.timeout;
    m_index.emplace(key, std::prev(m_sets.end()));
    return set;
}

void Reassembler::refuse(Set& set) {
    ++m_dropped;
    m_held -= set.held;
    set.held = 0;
    set.front = {};
    set.ahead.clear();
    set.refused = true;
}

void Reassembler::erase(Sets::iterator set) {
    m_held -= set->held;
    m_index.erase(set->key);
    m_sets.erase(set);
}

void Reassembler::expire(Clock::time_point now) {
    while (!m_sets.empty() && m_sets.front().deadline <= now) {
        if (!m_sets.front().refused) {
            ++m_dropped;
        }
        erase(m_sets.begin());
    }
}

Clock::time_point Reassembler::nextDeadline() const {
    return m_sets.empty() ? Clock::time_point::max() : m_sets.front().deadline;
}

void Reassembler::clear() {
    m_sets.clear();
    m_index.clear();
    m_completed.clear();
    m_nextCompleted = 0;
    m_held = 0;
}

bool Reassembler::completedLately(const SegmentKey& key, Clock::time_point now) const {
    return std::ranges::any_of(m_completed,
                               [&](const Completed& one) { return one.until > now && one.key == key; });
}

}  // namespace someip
