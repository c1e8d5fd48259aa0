// Random identifiers in the canonical upper-case form (staging and backup names, records).
#pragma once

#include <string>

namespace corvane {

std::string makeUuidString();
// True for the 36-character 8-4-4-4-12 hexadecimal form, in either case.
bool isUuidString(const std::string& text);

}  // namespace corvane
