#pragma once
#include "collect/Record.h"
#include "tests/support/Test.h"

namespace vlmTest {

inline kyo::Json::Value valueOf(const vlmProd::Record& record) {
    return valueOf(record.text);
}

}  // namespace vlmTest
