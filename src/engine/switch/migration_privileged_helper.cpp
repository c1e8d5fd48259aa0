#include "engine/switch/migration_privileged_helper.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>

#include "engine/manifest/migration_entry.h"
#include "engine/switch/migration_privileged_commands.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "support/paths.h"

namespace corvane {
namespace {

int finish(std::ostream& out, HelperExit status, nlohmann::ordered_json report) {
  out << report.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
  out.flush();
  return static_cast<int>(status);
}

int usage(std::ostream& out) { return finish(out, HelperExit::usage, {{"result", "usage"}}); }

int failed(std::ostream& out, const std::string& path, int errnoValue) {
  return finish(out, HelperExit::operationFailed, {{"result", "failed"}, {"path", path}, {"errno", errnoValue}});
}

std::optional<MigrationFileIdentity> parseIdentity(const std::string& text) {
  const auto colon = text.find(':');
  if (colon == std::string::npos) return std::nullopt;
  MigrationFileIdentity identity;
  const char* begin = text.data();
  const char* middle = begin + colon;
  const char* end = begin + text.size();
  auto device = std::from_chars(begin, middle, identity.device);
  auto inode = std::from_chars(middle + 1, end, identity.inode);
  if (device.ec != std::errc() || device.ptr != middle || inode.ec != std::errc() || inode.ptr != end)
    return std::nullopt;
  return identity;
}

// The object at `path`, not following a link, is still the one the command was written for.
bool stillIdentical(const std::string& path, const MigrationFileIdentity& expected) {
  try {
    auto entry = MigrationEntry::read(path, AT_FDCWD);
    return entry && entry->identity() == expected;
  } catch (const platform::PosixError&) {
    return false;
  }
}

}  // namespace

std::string helperIdentityArgument(const MigrationFileIdentity& identity) {
  return std::to_string(identity.device) + ":" + std::to_string(identity.inode);
}

int runExchangeHelper(const std::vector<std::string>& arguments, std::ostream& out) {
  if (arguments.size() == 3 && arguments[0] == kRehearseArgument) {
    const std::string& first = arguments[1];
    const std::string& second = arguments[2];
    try {
      platform::exchangePaths(first, second);
      platform::exchangePaths(first, second);
    } catch (const platform::PosixError& failure) {
      return failed(out, failure.path(), failure.errnoValue());
    }
    return finish(out, HelperExit::done, {{"result", "rehearsed"}});
  }
  if (arguments.size() != 6 || arguments[0] != kCheckedArgument) return usage(out);
  const std::string& first = arguments[1];
  const std::string& second = arguments[2];
  const std::string parent = parentPath(first);
  const std::string* paths[] = {&parent, &first, &second};
  MigrationFileIdentity expected[3];
  for (std::size_t i = 0; i < 3; ++i) {
    auto parsed = parseIdentity(arguments[3 + i]);
    if (!parsed) return usage(out);
    expected[i] = *parsed;
  }
  for (std::size_t i = 0; i < 3; ++i) {
    if (!stillIdentical(*paths[i], expected[i])) {
      return finish(out, HelperExit::identityChanged, {{"result", "identity_changed"}, {"path", *paths[i]}});
    }
  }
  try {
    platform::exchangePaths(first, second);
  } catch (const platform::PosixError& failure) {
    return failed(out, failure.path(), failure.errnoValue());
  }
  return finish(out, HelperExit::done, {{"result", "exchanged"}});
}

int runFileOperationHelper(const std::vector<std::string>& arguments, std::ostream& out) {
  if (arguments.size() == 3 && arguments[0] == kCreateSymbolicLinkSelector) {
    const std::string& link = arguments[1];
    if (::symlink(arguments[2].c_str(), link.c_str()) != 0) return failed(out, link, errno);
    return finish(out, HelperExit::done, {{"result", "done"}});
  }
  if (arguments.size() == 2 && arguments[0] == kRemoveItemSelector) {
    const std::string& path = arguments[1];
    // Only ever asked to remove a link it made; a directory found here is not one, and is left.
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) return failed(out, path, errno);
    if (S_ISDIR(st.st_mode)) return failed(out, path, EISDIR);
    if (::unlink(path.c_str()) != 0) return failed(out, path, errno);
    return finish(out, HelperExit::done, {{"result", "done"}});
  }
  return usage(out);
}

}  // namespace corvane
