#include "someip/EventSessions.h"

#include <algorithm>

namespace someip {

namespace {

/// Steps from one number to another one; from FFFF on to 1, as there is no 0.
unsigned steps(std::uint16_t from, std::uint16_t to) noexcept {
    return (to + 0xFFFFu - from) % 0xFFFFu;
}

}  // namespace

SessionSequence::Step SessionSequence::observe(std::uint16_t session, unsigned& missing) noexcept {
    const auto last = m_last;
    if (last == 0) {
        m_last = session;
        return Step::Other;
    }
    const unsigned ahead = steps(last, session);
    if (ahead == 1) {
        m_last = session;
        if (m_jump != 0 && steps(session, m_jump) == 1) {
            m_last = m_jump;  // the one before it was overtaken
            m_jump = 0;
        }
        return Step::Next;
    }
    if (ahead == 0 || session == m_jump) {
        return Step::Repeat;
    }
    const unsigned behind = 0xFFFFu - ahead;
    if (session == 1 && ahead > kNear && behind >= kNear) {
        m_last = session;
        m_jump = 0;
        return Step::Other;
    }
    if (behind <= kLate) {
        return Step::Other;
    }
    const unsigned beyond = m_jump == 0 ? 0 : steps(m_jump, session);
    if (beyond == 0 || beyond > kLate) {
        m_jump = session;
        return Step::Jump;
    }
    // The sequence goes on from the jump. A restarted sender falls to a lower number.
    const unsigned jumped = steps(last, m_jump);
    if (m_jump > last || jumped <= kMostOverWrap) {
        missing = jumped - 1 + beyond - 1;
    }
    m_last = session;
    m_jump = 0;
    return beyond == 1 ? Step::Next : Step::Jump;
}

ServiceSessions::Verdict ServiceSessions::judge(SessionSequence& event, std::uint16_t session) noexcept {
    using Step = SessionSequence::Step;
    if (session == 0) {
        return {};  // the sender does not count
    }
    unsigned missingApart = 0;
    unsigned missingTogether = 0;
    const Step apart = event.observe(session, missingApart);
    const Step together = m_together.observe(session, missingTogether);
    weigh(m_fitsApart, apart, together);
    weigh(m_fitsTogether, together, apart);
    m_lead = std::clamp(m_lead + (together == Step::Next) - (apart == Step::Next), -kMost, kMost);
    Verdict verdict;
    verdict.repeated = apart == Step::Repeat;
    if ((countsTogether() ? m_fitsTogether : m_fitsApart) >= kLearned) {
        verdict.missing = countsTogether() ? missingTogether : missingApart;
    }
    return verdict;
}

unsigned ServiceSessions::judgeOther(std::uint16_t session) noexcept {
    unsigned missing = 0;
    if (session != 0) {
        weigh(m_fitsTogether, m_together.observe(session, missing), SessionSequence::Step::Other);
    }
    return countsTogether() && m_fitsTogether >= kLearned ? missing : 0;
}

void ServiceSessions::weigh(int& fits, SessionSequence::Step step, SessionSequence::Step other) noexcept {
    using Step = SessionSequence::Step;
    if (step == Step::Next) {
        fits = std::min(fits + 1, kMost);
    } else if (step == Step::Jump || other == Step::Next) {
        fits = std::max(fits - kMiss, 0);
    }
}

}  // namespace someip
