#include "platform/preferred_languages.h"

#include <CoreFoundation/CoreFoundation.h>

namespace corvane::platform {
namespace {

std::string utf8String(CFStringRef string) {
  const CFIndex length = CFStringGetLength(string);
  const CFIndex capacity = CFStringGetMaximumSizeForEncoding(length, kCFStringEncodingUTF8) + 1;
  std::string buffer(static_cast<std::size_t>(capacity), '\0');
  if (!CFStringGetCString(string, buffer.data(), capacity, kCFStringEncodingUTF8)) return {};
  buffer.resize(std::char_traits<char>::length(buffer.c_str()));
  return buffer;
}

}  // namespace

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
