#include "platform/file_access.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace corvane::platform {
namespace {

std::string parentOf(const std::string& path) {
  auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

}  // namespace

bool isWritable(const std::string& path) { return access(path.c_str(), W_OK) == 0; }

bool isWritableAndSearchableAt(int directoryDescriptor, const std::string& name) {
  return faccessat(directoryDescriptor, name.c_str(), W_OK | X_OK, 0) == 0;
}

bool isExecutable(const std::string& path) { return access(path.c_str(), X_OK) == 0; }

bool isDeletable(const std::string& path) {
  const std::string parent = parentOf(path);
  if (access(parent.c_str(), W_OK | X_OK) != 0) return false;
  struct stat parentStatus {};
  struct stat entryStatus {};
  if (lstat(parent.c_str(), &parentStatus) != 0 || lstat(path.c_str(), &entryStatus) != 0) return false;
  if (parentStatus.st_mode & S_ISVTX) {
    const uid_t user = getuid();
    return user == 0 || user == entryStatus.st_uid || user == parentStatus.st_uid;
  }
  return true;
}

}  // namespace corvane::platform
