#include <CoreFoundation/CoreFoundation.h>

#include <cerrno>

#include "platform/darwin/core_foundation_strings.h"
#include "platform/posix_error.h"
#include "platform/user_defaults.h"

namespace corvane::platform {
namespace {

// Owns one Core Foundation reference.
struct CFReleaser {
  CFTypeRef object;
  ~CFReleaser() {
    if (object != nullptr) CFRelease(object);
  }
};

}  // namespace

std::optional<std::string> readUserDefault(const std::string& key) {
  CFStringRef name = makeCoreFoundationString(key);
  if (name == nullptr) return std::nullopt;
  CFReleaser nameOwner{name};
  CFPropertyListRef value = CFPreferencesCopyAppValue(name, kCFPreferencesCurrentApplication);
  if (value == nullptr) return std::nullopt;
  CFReleaser valueOwner{value};
  if (CFGetTypeID(value) != CFStringGetTypeID()) return std::nullopt;
  return utf8String(static_cast<CFStringRef>(value));
}

void writeUserDefault(const std::string& key, const std::string& value) {
  CFStringRef name = makeCoreFoundationString(key);
  CFStringRef text = makeCoreFoundationString(value);
  CFReleaser nameOwner{name};
  CFReleaser textOwner{text};
  if (name == nullptr || text == nullptr) throw PosixError(EINVAL, key);
  CFPreferencesSetAppValue(name, text, kCFPreferencesCurrentApplication);
  if (!CFPreferencesAppSynchronize(kCFPreferencesCurrentApplication)) throw PosixError(EIO, key);
}

std::string userDefaultsLocation() { return "the application's preferences"; }

}  // namespace corvane::platform
