#pragma once
#include <string>

#include "kyo/Json.h"

namespace vlmProd {

/// Reserved for filters that change at run time; not used.
class FilterUpdate {
  public:
    FilterUpdate();
    /// Always an empty value.
    kyo::Json::Value returnType(std::string name);
};

}  // namespace vlmProd
