/// Master-control messages, one per line, with reports sent in between ("!" and the client's answer as a
/// letter). A report must be sent only when the backend permits it, and nothing may throw.
#include "Fuzzing.h"
#include "examples/platform/ScriptedOrxClient.h"
#include "report/VlmServer.h"
#include "tests/support/NoConfigurations.h"

using vlmFuzz::require;
using vlmTest::ScriptedClient;

namespace {

/// One server for all inputs; startAnew() brings it into a known state.
vlmProd::VlmServer& server() {
    static auto* const instance = [] {
        auto* const created =
            new vlmProd::VlmServer("Catalog 1", {"TypeA"}, std::make_shared<vlmTest::NoConfigurations>());
        created->registerDataDeliveryCallback([](vlmProd::orxStatus) {});
        created->startServer();
        return created;
    }();
    return *instance;
}

/// Resets the server to one state: channel open, last report sent and delivered.
void startAnew() {
    server();
    auto& client = ScriptedClient::current();
    client.reset();
    client.masterControl(vlmTest::control());
    kyo::Json::Value report = vlmTest::report("first");
    require(server().sendToOrx(report) == 0, "a report is sent");
    client.masterControl(vlmTest::control());
    require(!server().isBlocked() && server().isAnythingPermitted(), "the channel is open");
}

}  // namespace

void vlmFuzz::run(Input in) {
    startAnew();
    auto& client = ScriptedClient::current();
    while (!in.empty()) {
        const std::string line = in.line();
        if (line.starts_with("!")) {
            const std::int32_t answer = line.size() > 1 ? line[1] - 'a' : 0;
            client.answerSends([answer] { return answer; });
            kyo::Json::Value report = vlmTest::report(line);
            const std::size_t before = client.sends();
            const bool permitted = server().isAnythingPermitted();
            const std::int32_t result = server().sendToOrx(report);
            require(client.sends() == before + (permitted ? 1 : 0), "permitted, and so sent");
            require(result == (permitted ? answer : vlmProd::VlmServer::kNothingPermitted),
                    "the client's answer is passed on");
            continue;
        }
        // The transport passes on only JSON.
        if (kyo::Json::Value message; vlmFuzz::parse(line, message)) {
            client.masterControl(message);
        }
    }
}
