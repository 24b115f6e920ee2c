#pragma once
namespace kyo {

class DateTime {
  public:
    /// Wall-clock time in milliseconds since 1970-01-01 00:00 UTC.
    static unsigned long long getCurrentTimeMs();
};

}  // namespace kyo
