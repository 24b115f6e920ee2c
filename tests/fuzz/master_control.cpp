/// Master-control messages, one a line, with reports sent in between ("!" and the client's answer as a
/// letter): whatever comes, a report goes out only when the backend permits one, and nothing throws.
#include "Fuzzing.h"
#include "report/VlmServer.h"
#include "tests/support/NoConfigurations.h"
#include "tests/minimal/ScriptedOrxClient.h"

using vlmFuzz::require;
using vlmTest::ScriptedClient;

namespace {

/// One for all inputs, as each leaves a timer's thread behind that sleeps for eleven minutes.
vlmProd::VlmServer& server() {
    static auto* const instance = [] {
        vlmFuzz::logToNowhere();
        auto* const created =
            new vlmProd::VlmServer("Catalog 1", {"TypeA"}, std::make_shared<vlmTest::NoConfigurations>());
        created->registerDataDeliveryCallback([](vlmProd::orxStatus) {});
        created->startServer();
        return created;
    }();
    return *instance;
}

/// Brings the server into one state: open, and its last report sent and delivered.
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

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    vlmFuzz::Input in({data, size});
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
                    "the client's answer is told");
            continue;
        }
        // As the transport does: what is no JSON goes no further.
        if (kyo::Json::Value message; vlmFuzz::parse(line, message)) {
            client.masterControl(message);
        }
    }
    return 0;
}
