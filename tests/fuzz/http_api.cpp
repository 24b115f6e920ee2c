/// A request to the backend: target, host, credentials and body, a line each. Without a socket, on a small
/// database.
#include <fstream>

#include "Fuzzing.h"
#include "backend/store/Store.h"
#include "backend/web/Access.h"
#include "backend/web/Page.h"
#include "backend/web/ReadApi.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/unit/backend/Envelopes.h"

using namespace vlmBackend;

namespace {

constexpr const char* kOutside = "outside of the page";

/// Lives as long as the process.
struct Served {
    Served() {
        const std::string samples = "[" + vlmTest::positionText(1'700'000'000'000, 48, 9) + "," +
                                    vlmTest::positionText(1'700'000'000'100, 49, 9) + "]";
        const store::Received received[] = {
            {"vlm/v", vlmTest::envelopeText("a", samples), "", "", 1, 1'700'000'000'200},
            {"vlm/v", "no envelope", "", "", 1, 1'700'000'000'200}};
        store.put(received);
        std::filesystem::create_directories(folder.file("page"));
        std::ofstream(folder.file("page/index.html")) << "page";
        std::ofstream(folder.file("secret")) << kOutside;
        web::addReadRoutes(router, readers, readers);
        router.add("PUT", "/api/json", web::Role::Configure,
                   [](const web::Request& request) { return web::Response::of(request.json()); });
        router.addOthers(web::Role::View,
                         [this](const web::Request& request) { return page.file(request.path); });
    }

    const vlmTest::TemporaryFolder folder;
    const std::string file = folder.file("vehicles.db");
    store::Store store{file};
    web::Readers readers{file, 2};
    web::Page page{folder.file("page")};
    web::Router router;
};

}  // namespace

void vlmFuzz::run(Input input) {
    static Served served;
    const std::string asked = textOf(Input(input).rest());  // an error may repeat it
    const bool changes = (input.byte() & 1) != 0;
    const std::string target = input.line();
    web::Access access({false, {}, "secret"});
    web::Request request;
    const std::string host = input.line();
    const std::string authorization = input.line();
    const auto refused = access.admit({"127.0.0.1", host, authorization}, request);
    require(!refused || refused->status == 401, "wrong credentials are refused as such");
    require(request.role == web::Role::None || !authorization.empty(),
            "nobody is admitted without credentials");

    request = {};
    request.method = changes ? "PUT" : "GET";
    request.role = web::Role::Configure;
    request.contentType = "application/json";
    request.body = textOf(input.rest());
    const web::Response answer = served.router.handle(target, request);
    std::string body = answer.body;
    if (answer.stream) {
        answer.stream([&body](std::string_view part) {
            body += part;
            return true;
        });
    }
    require(answer.status >= 200 && answer.status < 500, "no request makes server or database fail");
    kyo::Json::Value content;
    require(answer.type != "application/json" || parse(body, content), "an answer is JSON if it says so");
    require(answer.status < 400 || !content["error"].asString().empty(), "an error has a reason");
    require(asked.find(kOutside) != std::string::npos || body.find(kOutside) == std::string::npos,
            "no path leads out of the page's folder");
    request.role = web::Role::None;
    require(served.router.handle(target, request).status >= 400, "nothing is answered without a role");
}
