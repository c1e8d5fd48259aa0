#include "platform/user_defaults.h"

#include <CoreFoundation/CoreFoundation.h>

#include <cerrno>

#include "platform/posix_error.h"

namespace corvane::platform {
namespace {

// Owns one Core Foundation reference.
struct CFReleaser {
  CFTypeRef object;
  ~CFReleaser() {
    if (object != nullptr) CFRelease(object);
  }
};

CFStringRef makeString(const std::string& text) {
  return CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(text.data()),
                                 static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false);
}

std::string utf8String(CFStringRef string) {
  const CFIndex length = CFStringGetLength(string);
  const CFIndex capacity = CFStringGetMaximumSizeForEncoding(length, kCFStringEncodingUTF8) + 1;
  std::string buffer(static_cast<std::size_t>(capacity), '\0');
  if (!CFStringGetCString(string, buffer.data(), capacity, kCFStringEncodingUTF8)) return {};
  buffer.resize(std::char_traits<char>::length(buffer.c_str()));
  return buffer;
}

}  // namespace

std::optional<std::string> readUserDefault(const std::string& key) {
  CFStringRef name = makeString(key);
  if (name == nullptr) return std::nullopt;
  CFReleaser nameOwner{name};
  CFPropertyListRef value = CFPreferencesCopyAppValue(name, kCFPreferencesCurrentApplication);
  if (value == nullptr) return std::nullopt;
  CFReleaser valueOwner{value};
  if (CFGetTypeID(value) != CFStringGetTypeID()) return std::nullopt;
  return utf8String(static_cast<CFStringRef>(value));
}

void writeUserDefault(const std::string& key, const std::string& value) {
  CFStringRef name = makeString(key);
  CFStringRef text = makeString(value);
  CFReleaser nameOwner{name};
  CFReleaser textOwner{text};
  if (name == nullptr || text == nullptr) throw PosixError(EINVAL, key);
  CFPreferencesSetAppValue(name, text, kCFPreferencesCurrentApplication);
  if (!CFPreferencesAppSynchronize(kCFPreferencesCurrentApplication)) throw PosixError(EIO, key);
}

std::string userDefaultsLocation() { return "the application's preferences"; }

}  // namespace corvane::platform
