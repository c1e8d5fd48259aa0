// Orders names the way the platform's file browser does: letters without regard to case, and
// runs of digits by their value, so "Foo 9" comes before "Foo 10".
#pragma once

#include <string_view>

namespace corvane {

// Negative, zero or positive, like strcmp. Names that differ only in case or in leading zeros
// are still told apart (case-sensitive byte order last), so the order is total.
int compareNaturally(std::string_view first, std::string_view second);

}  // namespace corvane
