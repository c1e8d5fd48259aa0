#include "catalogue/migrated_apps_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "catalogue/migrated_apps_file_format.h"
#include "platform/atomic_file_replacement.h"
#include "platform/hidden_flag.h"
#include "platform/no_follow_open.h"
#include "platform/posix_error.h"
#include "support/paths.h"

namespace corvane {
namespace {

platform::UniqueFd openDiskRoot(const std::string& disk) {
  platform::UniqueFd fd(::open(disk.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) platform::throwErrno(disk);
  return fd;
}

std::vector<MigratedApp> readIn(int directoryDescriptor, const std::string& name, const std::string& path) {
  const std::string data =
      platform::readRegularFileNoFollow(directoryDescriptor, name, MigratedAppsFileFormat::kMaximumFileSize, path);
  return MigratedAppsFileFormat::decode(data);
}

}  // namespace

std::string MigratedAppsFile::directoryPath(const std::string& disk) { return joinPath(disk, kDirectoryName); }

std::string MigratedAppsFile::currentPath(const std::string& disk) { return joinPath(directoryPath(disk), kFileName); }

std::string MigratedAppsFile::legacyPath(const std::string& disk) { return joinPath(disk, kFileName); }

void MigratedAppsFile::prepareDirectory(const std::string& disk) {
  const platform::UniqueFd root = openDiskRoot(disk);
  const std::string directory = directoryPath(disk);
  const std::string name(kDirectoryName);
  if (::mkdirat(root.get(), name.c_str(), 0755) != 0 && errno != EEXIST) platform::throwErrno(directory);
  platform::UniqueFd fd(::openat(root.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) platform::throwErrno(directory);
  platform::setHiddenFlag(fd.get(), directory);
}

std::vector<MigratedApp> MigratedAppsFile::read(const std::string& filePath) {
  const platform::UniqueFd directory = platform::openDirectoryNoFollow(parentPath(filePath));
  return readIn(directory.get(), lastComponent(filePath), filePath);
}

std::vector<MigratedApp> MigratedAppsFile::readLegacy(const std::string& disk) {
  const platform::UniqueFd root = openDiskRoot(disk);
  return readIn(root.get(), std::string(kFileName), legacyPath(disk));
}

void MigratedAppsFile::write(const std::vector<MigratedApp>& apps, const std::string& filePath) {
  // Encoded first, so that a record that cannot be written leaves the old file untouched.
  const std::string data = MigratedAppsFileFormat::encode(apps);
  const platform::UniqueFd directory = platform::openDirectoryNoFollow(parentPath(filePath));
  platform::AtomicFileReplacement replacement(directory.get(), lastComponent(filePath), filePath);
  replacement.write(data);
  replacement.commit();
}

MigratedAppsFile::Lock::Lock(const std::string& disk) {
  prepareDirectory(disk);
  const std::string directoryName = directoryPath(disk);
  const platform::UniqueFd directory = platform::openDirectoryNoFollow(directoryName);
  const std::string path = joinPath(directoryName, ".lock");
  fd_ = platform::UniqueFd(
      ::openat(directory.get(), ".lock", O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
  if (!fd_) platform::throwErrno(path);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (::flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) {
    if ((errno != EWOULDBLOCK && errno != EINTR) || std::chrono::steady_clock::now() > deadline)
      platform::throwErrno(path);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

void MigratedAppsFile::removeLegacy(const std::string& disk) {
  const platform::UniqueFd root = openDiskRoot(disk);
  if (::unlinkat(root.get(), std::string(kFileName).c_str(), 0) != 0) platform::throwErrno(legacyPath(disk));
}

}  // namespace corvane
