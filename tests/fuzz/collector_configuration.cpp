/// A collector configuration from its file to the queries of the base setup, including reports.
#include "Fuzzing.h"
#include "catalog/VlmJsonCatalog.h"
#include "config/ConfigParser.h"
#include "report/VlmReportControl.h"

using namespace vlmProd;
using vlmFuzz::require;

namespace {

void askEverything(ConfigParser& parser) {
    ConfigErrorCode code = ConfigErrorCode::Ok;
    require(parser.getClockDuration() >= 60000, "no clock is faster than a minute");
    std::map<std::string, std::string> collects;
    parser.getAllCollects(collects);
    std::map<std::string, long long> names;
    parser.getAllCollectorNames(code, names);
    require(static_cast<int>(names.size()) == parser.getCollectorObjCount(code),
            "collectors have different names");
    std::map<std::string, std::vector<std::string>> resources;
    parser.populateAllServicesAndResources(resources);
    require(resources.size() == parser.getAllConfiguredServices(code).size(), "services are listed once");
    for (const auto& [service, all] : resources) {
        for (const auto& resource : all) {
            std::vector<int> indexes;
            parser.getAllIndexes(service, resource, indexes);
            require(!indexes.empty(), "what is collected has an index");
            parser.getResourceIndexValue(service, resource);
        }
        parser.getResources(service, code);
    }
    for (const auto& [name, history] : names) {
        const std::string service = parser.getServiceName(name, code);
        require(code == ConfigErrorCode::Ok && !service.empty(), "a collector has a service");
        parser.getIndexNumber(name, service, parser.getResources(service, code), code);
        parser.getServiceAndResource(name, code);
        parser.getOnEventType(name, code);
    }
    parser.ValidateConfiguration(code);
    require(code == ConfigErrorCode::Ok, "what was accepted is accepted again");

    int shipped = 0;
    VlmReportControl control([&shipped](const Report&) { ++shipped; });
    const kyo::Json::Value reports = parser.configReportBlock(code);
    control.initializeReportControl(reports, parser.getConfigName(), parser.getConfigVersion());
    std::vector<SignalCollection> collections;
    for (const auto& [name, history] : names) {
        collections.emplace_back(name, "{}");
    }
    control.processReportQueue(collections);
    require(shipped == static_cast<int>(reports.size()), "each report is made");
}

}  // namespace

void vlmFuzz::run(Input in) {
    [[maybe_unused]] static const bool once = [] {
        FilesReturnCode code = FilesReturnCode::Ok;
        VlmJsonCatalog::createSingleton(vlmFuzz::fileWith("{\"meta\":{\"vlmVersion\":\"1\"}}"), code);
        return true;
    }();
    std::string path = vlmFuzz::fileWith(vlmFuzz::textOf(in.rest()));
    ConfigParser parser;
    ConfigErrorCode code = ConfigErrorCode::Ok;
    if (parser.parseFromLocalFile(path, code)) {
        askEverything(parser);
    } else {
        require(code != ConfigErrorCode::Ok, "what is refused has a code");
    }
}
