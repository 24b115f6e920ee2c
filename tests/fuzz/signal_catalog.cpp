/// The signal catalog, from its file to every query of the base setup.
#include "Fuzzing.h"
#include "catalog/VlmJsonCatalog.h"

using namespace vlmProd;

void vlmFuzz::run(Input in) {
    const std::string text = textOf(in.rest());
    kyo::Json::Value document;
    if (!parse(text, document)) {
        return;  // the product ends with status 250
    }
    try {
        VlmJsonCatalog catalog(fileWith(text));
        catalog.getCatalogVersion();
        FilesReturnCode code = FilesReturnCode::Ok;
        const auto services = catalog.getServicesNames(code);
        require(static_cast<int>(services.size()) == catalog.getNumberOfServices(), "services are counted");
        for (const auto& service : services) {
            for (const auto& [resource, ids] : catalog.getAllInstancesOfAService(service, code)) {
                catalog.getSomeIPKey(service, resource, code);
                for (const int id : ids) {
                    catalog.getAllProperties(service, resource, id);
                }
            }
        }
        catalog.getSomeIPKey("GNSS", "positions", code);
    } catch (const std::exception&) {  // an instance id that is no number ends start-up
    }
}
