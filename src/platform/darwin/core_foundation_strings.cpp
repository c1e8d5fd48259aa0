#include "platform/darwin/core_foundation_strings.h"

namespace corvane::platform {

std::string utf8String(CFStringRef string) {
  const CFIndex length = CFStringGetLength(string);
  const CFIndex capacity = CFStringGetMaximumSizeForEncoding(length, kCFStringEncodingUTF8) + 1;
  std::string buffer(static_cast<std::size_t>(capacity), '\0');
  if (!CFStringGetCString(string, buffer.data(), capacity, kCFStringEncodingUTF8)) return {};
  buffer.resize(std::char_traits<char>::length(buffer.c_str()));
  return buffer;
}

CFStringRef makeCoreFoundationString(const std::string& text) {
  return CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(text.data()),
                                 static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false);
}

}  // namespace corvane::platform
