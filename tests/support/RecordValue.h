#pragma once
#include <gtest/gtest.h>

#include <string>

#include "collect/Record.h"
#include "kyo/Json.h"

namespace vlmTest {

/// The parsed text.
inline kyo::Json::Value valueOf(const std::string& text) {
    kyo::Json::Value value;
    EXPECT_TRUE(kyo::Json::Reader().parse(text, value)) << text;
    return value;
}
inline kyo::Json::Value valueOf(const vlmProd::Record& record) {
    return valueOf(record.text);
}

}  // namespace vlmTest
