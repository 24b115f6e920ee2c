/// Configuration answers of the backend. The first byte selects: the answer itself; the text inside a record,
/// which is encoded in base64 here; or a file from which the directory backend creates an answer.
#include <botan/base64.h>

#include "Fuzzing.h"
#include "backend/ConfigurationFile.h"
#include "config/ConfigControlPanel.h"
#include "config/ConfigParser.h"

using kyo::Json::Value;

void vlmFuzz::run(Input in) {
    const auto kind = in.byte();
    const std::string text = textOf(in.rest());
    int handled = 0;
    const auto panel = std::make_shared<vlmProd::ConfigControlPanel>(
        [&handled](Value configuration, std::string, std::string) {
            ++handled;
            vlmProd::ConfigParser parser;
            vlmProd::ConfigErrorCode code = vlmProd::ConfigErrorCode::Ok;
            require(parser.parseFromJson(configuration, code) || code != vlmProd::ConfigErrorCode::Ok,
                    "what is refused has a code");
            return std::string();
        });
    Value document;
    Value answer;
    bool good = false;
    std::string fault;
    if (kind == 'f') {
        answer = kyo::orx::readConfigurationAnswer(fileWith(text), 8u << 20, fault);
        good = parse(text, document);
    } else if (kind == 'b') {
        answer[0]["recordId"] = "record";
        answer[0]["recordBody"] =
            Botan::base64_encode(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
        good = parse(text, document);
    } else if (!parse(text, answer)) {
        return;  // the transport passes on only JSON
    }
    panel->ConfigResponseCallback(answer);
    good = good && vlmProd::isWithin(vlmProd::ConfigControlPanel::kLimits, text, fault);
    require(handled >= (good ? 1 : 0) && handled <= 1, "a good answer is handled, once");
}
