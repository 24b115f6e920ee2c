/// Master-control messages, one a line, with reports sent in between ("!" and the client's answer as a
/// letter): whatever comes, a report goes out only when the backend permits one, and nothing throws.
#include "Fuzzing.h"
#include "report/VlmServer.h"
#include "tests/unit/backend/ScriptedOrxClient.h"

using vlmFuzz::require;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    [[maybe_unused]] static const bool once = (vlmFuzz::logToNowhere(), true);
    vlmFuzz::Input in({data, size});
    vlmProd::VlmServer server("Catalog 1", {"TypeA"});
    server.registerDataDeliveryCallback([](vlmProd::orxStatus) {});
    server.startServer();
    auto& client = vlmTest::ScriptedClient::current();
    while (!in.empty()) {
        const std::string line = in.line();
        if (line.starts_with("!")) {
            const std::int32_t answer = line.size() > 1 ? line[1] - 'a' : 0;
            client.answerSends([answer](const kyo::Json::Value&) { return answer; });
            kyo::Json::Value report = vlmTest::report(line);
            const std::size_t before = client.sends();
            const std::int32_t result = server.sendToOrx(report);
            require(client.sends() == before + (server.isAnythingPermitted() ? 1 : 0),
                    "permitted, and so sent");
            require(result == (server.isAnythingPermitted() ? answer : vlmProd::VlmServer::kNothingPermitted),
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
