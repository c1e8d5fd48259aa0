#include <CoreFoundation/CoreFoundation.h>

#include "platform/darwin/core_foundation_strings.h"
#include "platform/preferred_languages.h"

namespace corvane::platform {

std::vector<std::string> preferredLanguages() {
  std::vector<std::string> languages;
  CFArrayRef list = CFLocaleCopyPreferredLanguages();
  if (list == nullptr) return languages;
  const CFIndex count = CFArrayGetCount(list);
  for (CFIndex i = 0; i < count; ++i) {
    const auto item = static_cast<CFStringRef>(CFArrayGetValueAtIndex(list, i));
    if (item != nullptr && CFGetTypeID(item) == CFStringGetTypeID()) {
      std::string language = utf8String(item);
      if (!language.empty()) languages.push_back(std::move(language));
    }
  }
  CFRelease(list);
  return languages;
}

}  // namespace corvane::platform
