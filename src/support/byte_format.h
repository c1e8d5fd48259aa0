// Byte counts and durations for people: "1.5 GB", "2 min 5 s".
#pragma once

#include <cstdint>
#include <string>

namespace corvane {

// Decimal units, as the platform's file managers show sizes.
std::string formatByteCount(std::int64_t bytes);

}  // namespace corvane
