#pragma once
/// Session numbers of received events: which of them never came. Whether a sender counts at all, and each
/// event apart or all of a service together, is its own choice; it is learned from what comes before a loss
/// is reported.
#include <cstdint>
#include <map>

namespace someip {

/// One sequence of numbers. A number that jumps is believed when its successor comes: until then it may be a
/// stray one, or the following one was overtaken.
class SessionSequence {
  public:
    enum class Step : std::uint8_t {
        Other,   ///< the first, a late one, or a new start
        Next,    ///< the expected one, or the one behind a jump
        Repeat,  ///< the same again
        Jump,    ///< not the expected one
    };
    /// `session` is not 0. `missing` is how many numbers before it are known never to have come.
    Step observe(std::uint16_t session, unsigned& missing) noexcept;

  private:
    /// Numbers behind the last one that are late rather than a new start.
    static constexpr unsigned kLate = 64;
    /// Numbers behind the last one, or ahead of it, that are no new start where 1 comes.
    static constexpr unsigned kNear = 16;
    /// A jump over the wrap that is a loss rather than a new start.
    static constexpr unsigned kMostOverWrap = 1024;

    std::uint16_t m_last = 0;  ///< 0: none yet
    std::uint16_t m_jump = 0;  ///< where the numbers have jumped to; 0: they have not
};

/// The numbers of one service of one sender.
class ServiceSessions {
  public:
    struct Verdict {
        unsigned missing = 0;  ///< notifications that never came
        bool repeated = false;
    };
    /// One event's own sequence; valid as long as this.
    SessionSequence& ofEvent(std::uint16_t event) { return m_events[event]; }
    Verdict judge(SessionSequence& event, std::uint16_t session) noexcept;
    /// Of an event that nobody has subscribed. Returns how many notifications are known never to have come.
    unsigned judgeOther(std::uint16_t session) noexcept;

  private:
    /// Notifications that fit a way of counting before its losses are reported; how many are remembered; and
    /// what one that does not fit takes away.
    static constexpr int kLearned = 10;
    static constexpr int kMost = 64;
    static constexpr int kMiss = 4;

    static void weigh(int& fits, SessionSequence::Step step, SessionSequence::Step other) noexcept;
    bool countsTogether() const noexcept { return m_lead > 0; }

    std::map<std::uint16_t, SessionSequence> m_events;
    SessionSequence m_together;
    int m_fitsApart = 0;
    int m_fitsTogether = 0;
    /// Of the notifications that fit one way alone, how many more fit the events counted together. A loss
    /// fits neither way, and a run of one event both.
    int m_lead = 0;
};

}  // namespace someip
