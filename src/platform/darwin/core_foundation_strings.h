// Conversions between Core Foundation strings and UTF-8 std::string for the macOS platform files.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>

namespace corvane::platform {

// The string's UTF-8 text; empty when it cannot be converted.
std::string utf8String(CFStringRef string);
// A new string the caller releases; null when `text` is not valid UTF-8.
CFStringRef makeCoreFoundationString(const std::string& text);

}  // namespace corvane::platform
