#include "collect/Collector.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <memory>

#include "bus/PubSubService.h"
#include "kyo/DateTime.h"
#include "report/VlmReportControl.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/collect/Records.h"

namespace vlmProd {
namespace {

using testing::ElementsAre;
using vlmTest::eventually;
using vlmTest::LogCapture;
using vlmTest::recordAt;

void tick() {
    Message message;
    PubSubService::getInstance().addMessageToQueue(message);
    PubSubService::getInstance().drainOnce();
}

TEST(Collector, AnswersATickWithWhatItHoldsAndGoesOnCollecting) {
    Collector collector("position", 1000, "GNSS", "positions", 1, "minute", CollectorOnEventType::Clock);
    kyo::Json::Value record = recordAt(10);
    collector.insertRecord(record);
    auto& control = VlmReportControl::getInstance();
    const auto queuedBefore = control.queued();

    LogCapture log;
    const auto before = kyo::DateTime::getCurrentTimeMs();
    tick();
    ASSERT_TRUE(log.waitFor(": In the History state"));
    ASSERT_TRUE(eventually([&] { return control.queued() == queuedBefore + 24U; }));
    const auto all = log.messages(5);
    const auto first = std::find(all.begin(), all.end(), "onOnEventCallback");
    ASSERT_NE(first, all.end());
    EXPECT_EQ(*(first + 1), "COLLECTOR NAME = position");
    const std::string stamped = *(first + 2);
    const std::string prefix = "ZEPH-47666: Collector position: Last on event timestamp: ";
    ASSERT_TRUE(stamped.starts_with(prefix));
    EXPECT_GE(std::stoull(stamped.substr(prefix.size())), before);
    EXPECT_EQ(*(first + 3), "ZEPH-44489: ZEPH-64275: Collector: position: In the Reportable state");
    EXPECT_EQ(*(first + 4), "ZEPH-43176: Collector position: moveRecordFromOutputqToReportBuffer");
    EXPECT_EQ(log.count(5, "Inside VlmReportControl::addToReport\n\n\n"), 1U);

    log.clear();
    collector.insertRecord(record);
    EXPECT_EQ(log.messages(5).front(), "Inserting record into collector object");
    EXPECT_TRUE(log.hasPart(5, "Moved data from input queue to output queue for the Collector: position"));
}

TEST(Collector, IgnoresTicksOnceItIsGone) {
    auto collector =
        std::make_unique<Collector>("gone", 0, "GNSS", "positions", 1, "minute", CollectorOnEventType::Clock);
    collector.reset();
    LogCapture log;
    Collector other("other", 0, "GNSS", "positions", 1, "minute", CollectorOnEventType::Clock);
    tick();
    ASSERT_TRUE(log.waitFor("Collector: other: In the History state"));
    EXPECT_FALSE(log.hasPart(5, "gone"));
}

}  // namespace
}  // namespace vlmProd
