// The bundle identifiers of the applications running now (terminated ones and those without an
// identifier left out). macOS asks the shared workspace; Linux has no application bundles, so
// the set is empty there.
//
// Error contract: never throws; what cannot be asked gives an empty set.
#pragma once

#include <set>
#include <string>

namespace corvane::platform {

std::set<std::string> runningApplicationBundleIdentifiers();

}  // namespace corvane::platform
