// What the logger and the heartbeat ask of the platform. The platform's operations are defined here and
// write down how they were called.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/VlmAraLogger.h"
#include "app/vlmHeartBeat.h"
#include "ara/log/logging.h"
#include "ara/phm/supervision.h"
#include "tests/support/LogCapture.h"

namespace {

std::vector<std::string> calls;

}  // namespace

namespace ara::log {

LogStream::~LogStream() {
    calls.push_back(std::to_string(static_cast<int>(m_level)) + " " + m_text);
}
LogStream LogFatal() {
    return LogStream(LogLevel::kFatal);
}
LogStream LogError() {
    return LogStream(LogLevel::kError);
}
LogStream LogWarn() {
    return LogStream(LogLevel::kWarn);
}
LogStream LogInfo() {
    return LogStream(LogLevel::kInfo);
}
LogStream LogDebug() {
    return LogStream(LogLevel::kDebug);
}
void InitLogging(std::string appId, std::string appDescription, LogLevel defaultLevel, LogMode mode,
                 std::string directoryPath) {
    calls.push_back(appId + "," + appDescription + "," + std::to_string(static_cast<int>(defaultLevel)) +
                    "," + std::to_string(static_cast<int>(mode)) + "," + directoryPath);
}

}  // namespace ara::log

namespace ara::phm {

Phm_client::Phm_client(std::string instance) : m_instance(std::move(instance)) {}
SupervisionEntity::SupervisionEntity(Phm_client& client) : m_instance(client.instance()) {}
SupervisionEntity::~SupervisionEntity() {
    calls.push_back("~entity");
}
void SupervisionEntity::CheckpointReached(std::uint16_t supervisionId, std::uint16_t checkpointId) {
    calls.push_back(m_instance + " " + std::to_string(supervisionId) + " " + std::to_string(checkpointId));
}
HealthChannel::HealthChannel(Phm_client& client) : m_instance(client.instance()) {}
HealthChannel::~HealthChannel() {
    calls.push_back("~channel");
}

}  // namespace ara::phm

namespace {

using testing::ElementsAre;

class PlatformUseTest : public testing::Test {
  protected:
    PlatformUseTest() { calls.clear(); }
};

TEST_F(PlatformUseTest, the_logger_starts_the_log_and_forwards_each_level_to_its_stream) {
    vlmProd::VlmAraLogger logger;
    EXPECT_THAT(calls, ElementsAre("VLM,Velmora,6,5,"));
    calls.clear();
    for (int level = 0; level <= 9; ++level) {
        logger.logData("l" + std::to_string(level), level);
    }
    EXPECT_THAT(calls,
                ElementsAre("4 l0", "4 l1", "1 l2", "2 l3", "3 l4", "4 l5", "5 l6", "5 l7", "4 l8", "4 l9"));
}

TEST_F(PlatformUseTest, each_alive_signal_is_one_checkpoint_or_says_that_there_is_no_health_management) {
    vlmTest::LogCapture log;
    vlmProd::vlmHeartBeat().sendAliveSignal();
    EXPECT_THAT(calls, ElementsAre("vlmmaster 6521 6521", "~channel", "~entity"));
    EXPECT_THAT(log.messages(5),
                ElementsAre("IAmAlive, call CheckpointReached, supervision id=6521, checkpoint id=6521",
                            "SupervisionCycle = 600", "Expected Indication = 10"));
    struct Unsupervised : vlmProd::vlmHeartBeat {
        Unsupervised() : vlmHeartBeat(Unconnected{}) {}
    };
    log.clear();
    Unsupervised().sendAliveSignal();
    EXPECT_THAT(log.messages(3), ElementsAre("IAmAlive called, the mSupervisionEntity has not been created"));
    EXPECT_EQ(log.lines().at(0).line, 56);
    EXPECT_EQ(calls.size(), 3u);
}

}  // namespace
