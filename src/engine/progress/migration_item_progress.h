// One item's place in a migration: its phase and counters, as handed to the interface.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

struct MigrationItemProgress {
  enum class Phase : std::uint8_t {
    waiting,
    preparing,
    scanning,
    copying,
    verifying,
    checking,
    switching,
    supporting,
    cleaning,
    rollingBack,
    done,
    failed,
    skipped
  };

  std::string name;
  Phase phase = Phase::waiting;
  std::string path;
  std::int64_t scannedEntries = 0;
  std::int64_t copiedBytes = 0;
  std::int64_t totalBytes = 0;
  std::int64_t copiedEntries = 0;
  std::int64_t totalEntries = 0;
  double bytesPerSecond = 0;
  bool measurable = false;
  std::int64_t verifiedBytes = 0;
  std::int64_t verificationBytes = 0;
  std::int64_t verifiedEntries = 0;

  bool operator==(const MigrationItemProgress&) const = default;
};

std::string_view phaseName(MigrationItemProgress::Phase phase);

}  // namespace corvane
