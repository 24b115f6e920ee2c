#include "tools/vehicle/Faults.h"

#include "tests/support/Test.h"

namespace {

using namespace vlmVehicle;
using namespace vlmTest;

TEST(Fault, IsReadFromItsWords) {
    Fault fault;
    std::string error;
    ASSERT_TRUE(Fault::parseTimed("30:silence Airbag 2.5", fault, error)) << error;
    EXPECT_EQ(fault.at, 30);
    EXPECT_EQ(fault.kind, Fault::Silence);
    EXPECT_TRUE(fault.concerns("Airbag", "crashInfo"));
    EXPECT_FALSE(fault.concerns("GNSS", "positions"));
    EXPECT_EQ(fault.seconds, 2.5);
    const std::pair<const char*, const char*> wrong[] = {
        {"30:truncatd", "did you mean \"truncated\"?"},
        {"30:truncated * -1", "\"-1\" is no number"},
        {"30:stop * 1 x", "is too much"},
        {"30:", "no fault is called \"\"; known are"},
        {"x:restart", "\"SECONDS:FAULT\" is expected"},
    };
    for (const auto& [text, expected] : wrong) {
        EXPECT_FALSE(Fault::parseTimed(text, fault, error)) << text;
        EXPECT_THAT(error, HasSubstr(expected)) << text;
    }
}

}  // namespace
