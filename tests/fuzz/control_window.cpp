/// Master control, as a spool takes it, between sends, losses and time. Each line is a message or a command.
#include "Fuzzing.h"
#include "backend/Forwarder.h"

using namespace kyo::orx;

void vlmFuzz::run(Input in) {
    Forwarder forwarder({std::chrono::seconds(60), 16});
    Forwarder::TimePoint now{};
    std::map<std::uint64_t, bool> waiting;
    std::set<std::uint64_t> sent;
    std::uint64_t highest = 0;
    const auto source = [&waiting](std::uint64_t after, int&) -> std::optional<Spool::Entry> {
        const auto found = waiting.upper_bound(after);
        return found == waiting.end() ? std::nullopt : std::optional(Spool::Entry{found->first, 1});
    };
    while (!in.empty()) {
        const std::string line = in.line();
        if (line == "connect") {
            sent.clear();
            forwarder.connected(1 + line.size() % 20, highest, now);
        } else if (line == "lose") {
            forwarder.lost();
            sent.clear();
        } else if (line == "store") {
            waiting[++highest] = true;
        } else if (line == "wait") {
            now += std::chrono::seconds(30);
        } else if (line == "confirm") {
            for (const std::uint64_t number : sent) {
                forwarder.confirmed(number);
            }
        } else if (line == "send") {
            for (int i = 0; i < 40; ++i) {
                const auto entry = forwarder.next(now, highest, source);
                if (!entry) {
                    break;
                }
                require(i < 39, "sending comes to an end");
                require(waiting.count(entry->number) == 1, "only what waits is sent");
                forwarder.sent(*entry, std::to_string(entry->number), now);
                sent.insert(entry->number);
            }
        } else if (kyo::Json::Value message; parse(line, message)) {
            kyo::orx::BackendControl control;
            std::string fault;
            if (!readBackendControl(message, control, fault)) {
                require(!fault.empty(), "what is refused has a reason");
                continue;
            }
            for (const auto& entry : forwarder.take(control)) {
                require(sent.count(entry.number) == 1, "only what was sent on this connection has arrived");
                require(control.messageId.empty() || control.messageId == std::to_string(entry.number),
                        "a result is for the envelope that it names");
                waiting.erase(entry.number);
                sent.erase(entry.number);
            }
        }
        require(forwarder.window() >= 1 && forwarder.window() <= 16, "the window has its limits");
        require(forwarder.onTheirWay() <= 16, "no more is on its way");
    }
}
