// NSWorkspace is an Objective-C interface; this file stays plain C++ and talks to it through
// the Objective-C runtime, so the build needs no Objective-C++ sources. Link with AppKit.
#include <CoreFoundation/CoreFoundation.h>
#include <objc/message.h>
#include <objc/runtime.h>

#include "platform/darwin/core_foundation_strings.h"
#include "platform/running_applications.h"

namespace corvane::platform {
namespace {

id sendId(id receiver, const char* selector) {
  return reinterpret_cast<id (*)(id, SEL)>(objc_msgSend)(receiver, sel_registerName(selector));
}

bool sendBool(id receiver, const char* selector) {
  return reinterpret_cast<BOOL (*)(id, SEL)>(objc_msgSend)(receiver, sel_registerName(selector));
}

}  // namespace

std::set<std::string> runningApplicationBundleIdentifiers() {
  std::set<std::string> identifiers;
  Class workspaceClass = objc_getClass("NSWorkspace");
  Class poolClass = objc_getClass("NSAutoreleasePool");
  if (workspaceClass == nullptr || poolClass == nullptr) return identifiers;
  // The workspace hands back autoreleased objects; a pool of our own keeps a background thread
  // without one from leaking them.
  id pool = sendId(sendId(reinterpret_cast<id>(poolClass), "alloc"), "init");
  id workspace = sendId(reinterpret_cast<id>(workspaceClass), "sharedWorkspace");
  // NSArray and NSString are toll-free bridged to their Core Foundation counterparts.
  auto applications = reinterpret_cast<CFArrayRef>(sendId(workspace, "runningApplications"));
  const CFIndex count = applications != nullptr ? CFArrayGetCount(applications) : 0;
  for (CFIndex index = 0; index < count; ++index) {
    id application = reinterpret_cast<id>(const_cast<void*>(CFArrayGetValueAtIndex(applications, index)));
    if (sendBool(application, "isTerminated")) continue;
    auto identifier = reinterpret_cast<CFStringRef>(sendId(application, "bundleIdentifier"));
    if (identifier == nullptr) continue;
    identifiers.insert(utf8String(identifier));
  }
  sendId(pool, "drain");
  return identifiers;
}

}  // namespace corvane::platform
