// Clock: where the helper reads the time. Production passes systemClock; tests pass a fixed or
// stepping function.
#pragma once

#include <chrono>
#include <functional>
#include <string>

// Microsecond resolution keeps far dates (the store's 0001-01-01) in range.
using TimePoint = std::chrono::sys_time<std::chrono::microseconds>;
using Clock = std::function<TimePoint()>;

inline TimePoint systemNow() {
  return std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
}

// ISO 8601 internet date-time in UTC to the second with a trailing Z, e.g. 2026-11-16T20:51:26Z.
std::string iso8601(TimePoint time);

// Seconds relative to 2001-01-01T00:00:00Z, the reference of the helper's JSON dates. Seconds
// outside what a TimePoint holds are clamped to its earliest or latest value (NaN gives the Unix
// epoch).
double secondsSinceReferenceDate(TimePoint time);
TimePoint fromSecondsSinceReferenceDate(double seconds);
