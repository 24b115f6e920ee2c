#pragma once
/// What most tests need: GoogleTest, the standard library's common parts, and the helpers of this folder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "json/JsonFields.h"
#include "kyo/Json.h"
#include "kyo/Status.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SharedList.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Together.h"

namespace vlmTest {

// So that `using namespace vlmTest` is enough; not all of GoogleTest, which has a Value of its own.
using namespace std::chrono_literals;
using kyo::Json::Value;
using testing::AllOf, testing::Contains, testing::Each, testing::ElementsAre, testing::EndsWith;
using testing::ExitedWithCode, testing::Field, testing::HasSubstr, testing::IsEmpty, testing::KilledBySignal;
using testing::Matches, testing::MatchesRegex, testing::Ne, testing::Not, testing::Pair,
    testing::PrintToString;
using testing::SizeIs, testing::StartsWith, testing::Test, testing::TestWithParam, testing::Throws;
using testing::UnorderedElementsAre;
using vlmProd::compactText;

/// The parsed text.
inline Value valueOf(const std::string& text) {
    Value value;
    kyo::Json::Reader reader;
    EXPECT_TRUE(reader.parse(text, value)) << text << reader.getFormattedErrorMessages();
    return value;
}

/// The value of a counter.
inline std::uint64_t counted(const std::string& name) {
    return kyo::Status::counter(name).value();
}

}  // namespace vlmTest
