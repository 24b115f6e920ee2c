// The process: connects the parts of the system in a fixed order, reports to health management until a signal
// requests the exit, and shuts down. All work happens on threads and in callbacks that start-up creates.
#include <stdlib.h>

#include <chrono>
#include <cxxopts.hpp>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "ac/com/runtime/component.h"
#include "app/CounterLog.h"
#include "app/ProcessEnd.h"
#include "app/RunningState.h"
#include "app/StopSignals.h"
#include "app/VLMConfig.h"
#include "app/VlmAraLogger.h"
#include "app/vlmHeartBeat.h"
#include "ara/exec/application_client.h"
#include "ara/stm/component_client.h"
#include "base/DetachedThread.h"
#include "base/Version.h"
#include "base/VlmLog.h"
#include "catalog/VlmJsonCatalog.h"
#include "config/ConfigControlPanel.h"
#include "config/ConfigResponseHandler.h"
#include "json/FieldReader.h"
#include "kyo/Log.h"
#include "kyo/Status.h"
#include "report/VlmDataSubmissionControl.h"

namespace {

using namespace vlmProd;

constexpr char kApplicationName[] = "vlmmaster";
constexpr char kCatalogPath[] = "/etc/VLM_Available_Signals_Catalog_20210311.json";
constexpr kyo::LogLevel kReportingLevel = 7;
constexpr std::chrono::seconds kAlivePeriod{30};

// The log prefixes in this file, whichever function logs.
constexpr char kMain[] = "int main(int, char**)";
constexpr char kStateCallback[] =
    "main(int, char**)::<lambda(const ara::stm::ComponentClient&, uint32_t, const ComponentState&)>";

struct CommandLine {
    std::string loggedHelp;  ///< empty unless help was requested
    std::string wholeHelp;   ///< likewise
    bool hasConfigFile = false;
    std::string configFile;
    bool hasLocalFile = false;
    std::string localFile;  ///< empty: backend mode
};

void installLogger() {
    // Never destroyed: detached threads log until the process ends.
    kyo::Log::setProductLogger(new VlmAraLogger);
    kyo::Log::setReportingLevel(kReportingLevel);
}

CommandLine parseCommandLine(int argc, char** argv) {
    cxxopts::Options options(kApplicationName, "This is a vlmmaster program.");
    options.positional_help("[OPTION...]").custom_help("positional parameters");
    options.add_options()                                                                //
        ("c,configfile", "vlmmaster configuration file", cxxopts::value<std::string>())  //
        ("l,localFile", "Local Collector config file", cxxopts::value<std::string>())    //
        ("h,help", "help", cxxopts::value<bool>());
    // Not in the default group, whose help is logged.
    options.add_options("Other")("version", "print the version");
    const cxxopts::ParseResult given = options.parse(argc, argv);
    CommandLine commandLine;
    if (given.count("help") > 0) {
        commandLine.loggedHelp = options.help({""});
        commandLine.wholeHelp = options.help();
        return commandLine;
    }
    commandLine.hasConfigFile = given.count("configfile") > 0;
    if (commandLine.hasConfigFile) {
        commandLine.configFile = given["configfile"].as<std::string>();
    }
    commandLine.hasLocalFile = given.count("localFile") > 0;
    if (commandLine.hasLocalFile) {
        commandLine.localFile = given["localFile"].as<std::string>();
    }
    return commandLine;
}

void showHelp(const CommandLine& commandLine) {
    VLM_LOG_PLAIN_AS(5, kMain, commandLine.loggedHelp);
    std::cout << commandLine.wholeHelp << std::endl;
}

void loadApplicationConfiguration(const CommandLine& commandLine) {
    if (commandLine.hasConfigFile) {
        VLMConfig::createSingleton(commandLine.configFile);
        VLM_LOG_PLAIN_AS(5, kMain, "VLM Config Object is created");
    } else {
        VLM_LOG_PLAIN_AS(3, kMain, "No application configuration is named: start with -c FILE");
    }
    if (commandLine.hasLocalFile) {
        VLM_LOG_PLAIN_AS(5, kMain, "VLM Will start with local configuration " << commandLine.localFile);
    }
}

std::vector<std::string> readOfferedDataTypes() {
    std::vector<std::string> offered;
    FieldReader reader("application configuration", Reading::Converting);
    const kyo::Json::Value& types = VLMConfig::getInstance()->getJsonValue("OfferedDataTypes");
    for (const Field& element : reader.root(types, "OfferedDataTypes").elements("an array of texts")) {
        if (std::string type; element.name(type)) {
            offered.push_back(type);
        }
    }
    for (const std::string& fault : reader.faults()) {
        VLM_LOG_PLAIN_AS(3, kMain, fault << "; it is left out");
    }
    VLM_LOG_PLAIN_AS(5, kMain, "Offered Data Types Size = " << offered.size());
    return offered;
}

void onComponentState(const ara::stm::ComponentClient& client, std::uint32_t requestId,
                      const ara::stm::ComponentState& state) {
    VLM_LOG_PLAIN_AS(5, kStateCallback, "STATE = " << state);
    if (state == "kPrepSD") {
        VLM_LOG_PLAIN_AS(5, kStateCallback, "VLM Application is in kPrepSD state ");
        setApplicationRunning(false);
    } else if (state == "kOn") {
        VLM_LOG_PLAIN_AS(5, kStateCallback, "VLM Application is in kOn state ");
        if (!isApplicationRunning()) {
            setApplicationRunning(true);
        }
    } else {
        VLM_LOG_PLAIN_AS(5, kStateCallback, "VLM Application does not know the process state.");
    }
    using Result = ara::stm::ComponentClientReturnType;
    if (client.ConfirmComponentState(requestId, state, Result::kSuccess) == Result::kSuccess) {
        VLM_LOG_PLAIN_AS(5, kStateCallback, "Sent successful confirmation of change of state");
    }
}

/// Returns nullptr without a state manager; the process continues.
std::unique_ptr<ara::stm::ComponentClient> createStateClient() {
    std::unique_ptr<ara::stm::ComponentClient> client;
    try {
        client = ara::stm::createComponentClient(kApplicationName, onComponentState);
    } catch (const std::system_error& error) {
        VLM_LOG_PLAIN_AS(5, kMain,
                         "VLM Component client creation failed, ERR = " << error.code().category().name()
                                                                        << ':' << error.code().value());
    }
    VLM_LOG_PLAIN_AS(5, kMain, "after creating component_client");
    return client;
}

/// Returns the catalog's version: the name by which the backend knows this collection function.
std::string loadCatalog() {
    FilesReturnCode code = FilesReturnCode::Ok;
    VlmJsonCatalog::createSingleton(kCatalogPath, code);
    VLM_LOG_PLAIN_AS(5, kMain, "Successfully created the catalog file parser");
    std::string serverName = VlmJsonCatalog::getInstance()->getCatalogVersion();
    if (serverName.empty()) {
        // A bare text: start-up then ends with "unknown exception", by which operators know this fault.
        throw "Server name from JSON catalog is empty";
    }
    VLM_LOG_PLAIN_AS(5, kMain, "Server name = " << serverName);
    return serverName;
}

void startCollection(const std::string& localFile, const std::string& serverName,
                     const std::vector<std::string>& offeredDataTypes) {
    if (!localFile.empty()) {
        ConfigResponseHandler* const handler = ConfigResponseHandler::getInstance();
        handler->doBaseSetupFromLocalConfig(localFile);
        startDetached([handler] { handler->subscribeResources(); });
    } else {
        auto configurations = std::make_shared<ConfigControlPanel>(
            [](kyo::Json::Value configuration, const std::string& recordId, const std::string& recordBody) {
                return ConfigResponseHandler::getInstance()->takeFromBackend(std::move(configuration),
                                                                             recordId, recordBody);
            });
        VlmDataSubmissionControl::getInstance()->initializeServer(serverName, offeredDataTypes,
                                                                  std::move(configurations));
        VlmDataSubmissionControl::getInstance()->start();
    }
}

void keepAlive(vlmHeartBeat& heartBeat) {
    CounterLog counterLog;
    while (!exitRequested()) {
        heartBeat.sendAliveSignal();
        VLM_LOG_PLAIN_AS(5, kMain, "Sleeping for 30 secs");
        waitForStopSignal(kAlivePeriod);
        counterLog.check(CounterLog::Clock::now());
    }
}

/// The message of the exception that is being handled.
std::string reason() {
    try {
        throw;
    } catch (const std::exception& error) {
        return error.what();
    } catch (const std::string& text) {
        return text;
    } catch (const char* text) {
        return text;
    } catch (...) {
        return "an exception without a text";
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (printVersion(argc, argv, kApplicationName)) {
        return 0;
    }
    skipDestructorsAtExit();
    blockStopSignals();
    std::unique_ptr<ara::stm::ComponentClient> componentClient;  // declared first, so it is destroyed last
    ::setenv("APP_INSTANCE_ID", kApplicationName, 1);
    ara::exec::ApplicationClient applicationClient;
    applicationClient.ReportApplicationState(ara::exec::ApplicationState::kRunning);
    installLogger();
    setApplicationRunning(true);
    kyo::Status::gauge("process.version", [] { return kyo::Json::Value(version()); });
    ac::com::runtime::Component_singleton middleware(false, "");
    std::shared_ptr<vlmHeartBeat> heartBeat;
    try {
        const CommandLine commandLine = parseCommandLine(argc, argv);
        VLM_LOG_PLAIN_AS(5, kMain, "Version " << version());
        if (!commandLine.loggedHelp.empty()) {
            showHelp(commandLine);
            return 0;
        }
        loadApplicationConfiguration(commandLine);
        const std::vector<std::string> offeredDataTypes = readOfferedDataTypes();
        installSignalHandlers();
        componentClient = createStateClient();
        heartBeat = std::make_shared<vlmHeartBeat>();
        const std::string serverName = loadCatalog();
        startCollection(commandLine.localFile, serverName, offeredDataTypes);
        keepAlive(*heartBeat);
    } catch (const std::runtime_error& error) {
        VLM_LOG_PLAIN_AS(5, kMain, "Runtime error: " << error.what());
    } catch (...) {
        VLM_LOG_PLAIN_AS(3, kMain, "Start-up ends: " << reason());
        VLM_LOG_PLAIN_AS(5, kMain, "Unknown exception");
    }
    if (const std::size_t waiting = VlmDataSubmissionControl::getInstance()->waitingReports(); waiting > 0) {
        VLM_LOG_PLAIN_AS(3, kMain, waiting << " reports in the shipping queue are lost with the process");
    }
    VLM_LOG_PLAIN_AS(5, kMain, "Exiting from main");
    heartBeat.reset();
    applicationClient.ReportApplicationState(ara::exec::ApplicationState::kTerminating);
    // Destructors now end the middleware, then the application client. Threads of the singletons may run
    // until the process ends, so everything that they use is left to the operating system.
    return 0;
}
