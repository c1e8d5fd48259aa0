// Byte counts for people, in the current language: "1.5 GB", "12 bytes".
#pragma once

#include <cstdint>
#include <string>

namespace corvane {

// Decimal units, as the platform's file managers show sizes.
std::string formatByteCount(std::int64_t bytes);

}  // namespace corvane
