#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <mutex>
#include <nlohmann/json.hpp>

#include "platform/posix_error.h"
#include "platform/unique_fd.h"
#include "platform/user_defaults.h"
#include "support/descriptor_io.h"

namespace corvane::platform {
namespace {

// One writer at a time inside the process; other processes are kept out of a torn file by
// the rename, and the last complete write wins.
std::mutex& settingsMutex() {
  static std::mutex mutex;
  return mutex;
}

std::string homeDirectory() {
  if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/') return home;
  struct passwd entry {};
  struct passwd* found = nullptr;
  char buffer[4096];
  if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr && found->pw_dir)
    return found->pw_dir;
  return "/";
}

std::string configurationDirectory() {
  // The base directory specification ignores relative values.
  if (const char* base = std::getenv("XDG_CONFIG_HOME"); base != nullptr && *base == '/')
    return std::string(base) + "/corvane";
  return homeDirectory() + "/.config/corvane";
}

std::string settingsFilePath() { return configurationDirectory() + "/settings.json"; }

// The file that holds the settings: when settings.json is a symbolic link (a dotfile manager
// keeps it elsewhere), the link's target, so that the link survives our writes.
std::string fileToReplace(const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0 || !S_ISLNK(status.st_mode)) return path;
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved) == nullptr) return path;
  return resolved;
}

std::optional<std::string> readWholeFile(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) {
    if (errno == ENOENT) return std::nullopt;
    throwErrno(path);
  }
  std::string contents;
  if (!readToEnd(fd.get(), contents)) throwErrno(path);
  return contents;
}

// The settings object; absent when there is no file; throws UserDefaultsCorrupted when the file
// is not a JSON object.
std::optional<nlohmann::json> readSettings(const std::string& path) {
  const auto contents = readWholeFile(path);
  if (!contents) return std::nullopt;
  nlohmann::json settings = nlohmann::json::parse(*contents, nullptr, false);
  if (settings.is_discarded() || !settings.is_object())
    throw UserDefaultsCorrupted(path + " does not hold a JSON object");
  return settings;
}

void makeDirectories(const std::string& directory) {
  std::string partial;
  std::size_t start = 1;
  while (start <= directory.size()) {
    auto slash = directory.find('/', start);
    if (slash == std::string::npos) slash = directory.size();
    partial = directory.substr(0, slash);
    if (::mkdir(partial.c_str(), 0700) != 0 && errno != EEXIST) throwErrno(partial);
    start = slash + 1;
  }
}

void writeFully(int fd, const std::string& data, const std::string& path) {
  if (!writeAll(fd, data)) throwErrno(path);
}

// Writes `data` to a new file beside `path` and renames it over `path`, so a reader sees the
// old settings or the new ones, never a mixture.
void replaceAtomically(const std::string& path, const std::string& data) {
  static std::atomic<unsigned> counter{0};
  const auto slash = path.find_last_of('/');
  const std::string directory = path.substr(0, slash);
  const std::string temporary =
      directory + "/.settings.json." + std::to_string(::getpid()) + "." + std::to_string(counter.fetch_add(1)) + ".tmp";
  UniqueFd fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!fd) throwErrno(temporary);
  try {
    writeFully(fd.get(), data, temporary);
    if (::fsync(fd.get()) != 0) throwErrno(temporary);
    if (fd.close() != 0) throwErrno(temporary);
    if (::rename(temporary.c_str(), path.c_str()) != 0) throwErrno(path);
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
  UniqueFd directoryFd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directoryFd) ::fsync(directoryFd.get());
}

}  // namespace

std::optional<std::string> readUserDefault(const std::string& key) {
  std::lock_guard lock(settingsMutex());
  const auto settings = readSettings(settingsFilePath());
  if (!settings) return std::nullopt;
  const auto found = settings->find(key);
  if (found == settings->end() || !found->is_string()) return std::nullopt;
  return found->get<std::string>();
}

void writeUserDefault(const std::string& key, const std::string& value) {
  std::lock_guard lock(settingsMutex());
  makeDirectories(configurationDirectory());
  const std::string path = fileToReplace(settingsFilePath());
  nlohmann::json settings = nlohmann::json::object();
  try {
    if (auto existing = readSettings(path)) settings = std::move(*existing);
  } catch (const UserDefaultsCorrupted&) {
    // Keep the damaged file for whoever wants to look at it instead of losing it silently.
    const std::string aside = path + ".corrupt";
    if (::rename(path.c_str(), aside.c_str()) != 0) throwErrno(path);
  }
  settings[key] = value;
  replaceAtomically(path, settings.dump(2) + "\n");
}

std::string userDefaultsLocation() { return settingsFilePath(); }

}  // namespace corvane::platform
