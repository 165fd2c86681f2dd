#include "platform/clock.h"

#include <cmath>
#include <ctime>

namespace {
// 2001-01-01T00:00:00Z in Unix time.
constexpr double kReferenceDateUnixSeconds = 978307200.0;
}  // namespace

std::string iso8601(TimePoint time) {
  auto seconds = std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count();
  std::time_t t = static_cast<std::time_t>(seconds);
  std::tm utc{};
  ::gmtime_r(&t, &utc);
  char buffer[32];
  size_t length = std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return std::string(buffer, length);
}

double secondsSinceReferenceDate(TimePoint time) {
  return static_cast<double>(time.time_since_epoch().count()) / 1e6 - kReferenceDateUnixSeconds;
}

TimePoint fromSecondsSinceReferenceDate(double seconds) {
  const double micros = (seconds + kReferenceDateUnixSeconds) * 1e6;
  // Beyond about 292,000 years either way the count no longer fits: clamp instead of overflowing.
  if (!(micros < static_cast<double>(TimePoint::max().time_since_epoch().count()))) {
    return std::isnan(micros) ? TimePoint() : TimePoint::max();
  }
  if (!(micros > static_cast<double>(TimePoint::min().time_since_epoch().count()))) {
    return TimePoint::min();
  }
  return TimePoint(std::chrono::microseconds(std::llround(micros)));
}
