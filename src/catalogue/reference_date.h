// A moment as the record file stores it: seconds, with fraction, since 2001-01-01 00:00:00 UTC,
// the reference date of the macOS program that shares the file.
#pragma once

#include <compare>

namespace corvane {

struct ReferenceDate {
  // Seconds from 1970-01-01 to 2001-01-01, both UTC.
  static constexpr double kUnixEpochOffset = 978307200.0;

  double secondsSinceReferenceDate = 0;

  static ReferenceDate now();
  static ReferenceDate fromUnixSeconds(double seconds) { return {seconds - kUnixEpochOffset}; }
  double unixSeconds() const { return secondsSinceReferenceDate + kUnixEpochOffset; }

  auto operator<=>(const ReferenceDate&) const = default;
};

}  // namespace corvane
