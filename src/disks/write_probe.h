// Proves that the program may write to a volume: a small file with a fresh name is written
// atomically in the volume's root and removed again. A volume that refuses (read-only, no
// permission) keeps nothing of the attempt.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane {

// ".corvane_test_" for the writability test of a candidate volume.
inline constexpr std::string_view kWritabilityProbePrefix = ".corvane_test_";
// ".corvane_permission_test_" for the access test of the chosen destination.
inline constexpr std::string_view kAccessProbePrefix = ".corvane_permission_test_";

// Absent on success; otherwise the system's description of why the write failed. A failed
// removal of a written probe is ignored, as the write itself proved the access.
std::optional<std::string> probeWrite(const std::string& volumePath, std::string_view prefix);

}  // namespace corvane
