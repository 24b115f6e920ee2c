#pragma once
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "backend/Spool.h"
#include "kyo/Json.h"

namespace kyo::orx {

/// What a master-control message says.
struct BackendControl {
    std::string ticket;
    std::vector<std::string> permitted;
    int channel = 0;
    int result = 0;
    std::string messageId;  ///< of the envelope that the result belongs to; empty: the message names none

    bool opens() const { return channel == 0 && result == 0 && !permitted.empty(); }
};

/// Reads the whole untrusted message, and converts values as the application's reader of it does. Returns
/// false with what is wrong in `fault`.
bool readBackendControl(const Json::Value& message, BackendControl& out, std::string& fault);

/// Decides which envelope of the spool is sent next, and which have arrived. It has no thread, no clock and
/// no connection, and its caller serialises the calls.
///
/// At most a window of envelopes is on its way. The window doubles with each result that names its envelope,
/// up to the limit, and is one otherwise: then an opening message is the result 0 of the one envelope, but
/// only after the broker has confirmed it, and not as the connection's first message. Once a backend has
/// named an envelope, an opening message is never a result, until an answer is overdue.
class Forwarder {
  public:
    using Clock = std::chrono::steady_clock;
    using TimePoint = Clock::time_point;
    using Entry = Spool::Entry;
    /// Spool::next().
    using Source = std::function<std::optional<Entry>(std::uint64_t after, int& error)>;

    struct Settings {
        std::chrono::milliseconds resultTimeout{60000};
        std::size_t largestWindow = 16;
    };

    explicit Forwarder(Settings settings) : m_settings(settings) {}

    /// A new connection. What waits up to `highest` is old: it is sent from `drainFrom` on, and at most every
    /// second time when something newer waits.
    void connected(std::size_t receiveMaximum, std::uint64_t highest, TimePoint drainFrom);
    /// All that was on its way is sent again on the next connection. Returns its numbers.
    std::vector<std::uint64_t> lost();

    /// Takes a message. Returns the envelopes that have arrived.
    std::vector<Entry> take(const BackendControl& control);
    /// The broker has confirmed an envelope.
    void confirmed(std::uint64_t number);
    /// The broker could not give it on; it waits for an opening message.
    void undelivered(std::uint64_t number);

    /// What to send now, if anything. `highest` is the spool's highest number. When the source does not know
    /// what waits, it is asked again after a second.
    std::optional<Entry> next(TimePoint now, std::uint64_t highest, const Source& source);
    /// What next() returned is being sent.
    void sent(const Entry& entry, const std::string& messageId, TimePoint now);
    /// What next() returned cannot be read or sent now: it comes again, after a second.
    void unsent(std::uint64_t number, TimePoint now);
    /// What next() returned is not there any more, or was moved aside.
    void skip(const Entry& entry);

    /// When next() may have something without a further event; nothing when it needs one.
    std::optional<TimePoint> wakeAt(TimePoint now) const;

    bool isConnected() const { return m_connected; }
    bool isOpen() const { return m_connected && m_open; }
    std::size_t window() const { return m_window; }
    std::size_t onTheirWay() const { return m_items.size(); }
    /// Whether the backend names the envelopes that its results belong to.
    bool isNamed() const { return m_named; }
    void setNamed(bool named) { m_named = named; }

  private:
    enum class State { OnItsWay, Confirmed, AwaitsOpening, Due };
    struct Item {
        Entry entry;
        std::string messageId;
        TimePoint sentAt;
        State state;
    };

    Item* find(std::uint64_t number);
    std::optional<Entry> firstFree(std::uint64_t after, const Source& source, int& error) const;
    void moveOn(std::uint64_t number);

    const Settings m_settings;
    bool m_connected = false;
    bool m_open = false;
    bool m_heard = false;  ///< a message came on this connection
    bool m_named = false;
    std::size_t m_window = 1;
    std::size_t m_largestWindow = 1;  ///< of this connection
    std::vector<Item> m_items;        ///< not answered yet, in the order of their first sending
    std::uint64_t m_boundary = 0;     ///< the highest number of the old ones
    std::uint64_t m_oldTaken = 0;     ///< of the old ones, those up to this were taken
    std::uint64_t m_newTaken = 0;
    bool m_lastWasNew = false;
    TimePoint m_drainFrom{};
    TimePoint m_retryAt{};  ///< after a send that could not be made
};

}  // namespace kyo::orx
