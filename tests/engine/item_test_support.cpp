#include "engine/item_test_support.h"

#include <fcntl.h>

#include <stdexcept>

#include "engine/verify/migration_integrity_verifier.h"
#include "fixtures/test_volume.h"
#include "platform/process.h"

namespace corvane {
namespace {

void run(const std::string& executable, const std::vector<std::string>& arguments) {
  platform::ProcessRequest request;
  request.executable = executable;
  request.arguments = arguments;
  auto result = platform::runProcess(request);
  if (!result.exit.succeeded()) throw std::runtime_error(executable + " failed: " + result.standardError);
}

}  // namespace

MigrationManifest scanned(const std::string& root) {
  return MigrationIntegrityVerifier::snapshot(root, RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip);
}

std::vector<std::string> namesIn(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& [path, entry] : scanned(directory)) {
    if (!path.empty() && path.find('/') == std::string::npos) names.push_back(path);
  }
  return names;
}

std::optional<MigrationEntry> entryAt(const std::string& path) { return MigrationEntry::read(path, AT_FDCWD); }

void copyTree(const std::string& from, const std::string& to) { run("/bin/cp", {"-a", "--", from, to}); }

void remountReadOnly(const TestVolume& volume) { run("mount", {"-o", "remount,ro", volume.mountPoint()}); }

}  // namespace corvane
