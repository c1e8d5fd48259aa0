#include "engine/migration_test_support.h"

#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>

#include "engine/verify/migration_integrity_verifier.h"
#include "fixtures/sample_tree.h"
#include "platform/file_system.h"

namespace corvane {

std::string writeScript(const std::string& directory, const std::string& name, const std::string& body) {
  const std::string path = directory + "/" + name;
  writeFile(path, "#!/bin/sh\n" + body, 0755);
  return path;
}

bool processIsReaped(pid_t pid) { return kill(pid, 0) == -1 && errno == ESRCH; }

std::map<std::string, std::string> fullManifest(const std::string& root) {
  std::map<std::uint64_t, std::vector<std::string>> groups;
  std::map<std::string, std::string> result;
  for (const auto& [relative, entry] : scanned(root)) {
    const std::string path = relative.empty() ? root : root + "/" + relative;
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) throw std::runtime_error("lstat " + path);
    std::string text = std::string(kindName(entry.kind)) + " mode " + std::to_string(status.st_mode) + " owner " +
                       std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid) + " size " +
                       std::to_string(status.st_size) + " mtime " + std::to_string(status.st_mtim.tv_sec) + "." +
                       std::to_string(status.st_mtim.tv_nsec) + " links " + std::to_string(status.st_nlink);
    if (entry.kind == MigrationEntry::Kind::regular) text += " data " + readFile(path);
    if (entry.link) text += " -> " + *entry.link;
    if (entry.kind == MigrationEntry::Kind::regular || entry.kind == MigrationEntry::Kind::directory) {
      for (const auto& name : platform::listExtendedAttributes(path)) {
        text += " xattr " + name + "=" + platform::readExtendedAttribute(path, name);
      }
      text += platform::hasExtendedAccessControlList(path) ? " acl" : "";
    }
    if (entry.kind == MigrationEntry::Kind::regular && status.st_nlink > 1) groups[status.st_ino].push_back(relative);
    result[relative] = text;
  }
  for (const auto& [inode, paths] : groups) {
    std::string group;
    for (const auto& path : paths) group += path + " ";
    for (const auto& path : paths) result[path] += " group " + group;
  }
  return result;
}

bool hasStagingLeft(const std::string& directory) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    const std::string name = entry.path().filename();
    if (name.rfind(".corvane-", 0) == 0 || name.rfind(".corvane_", 0) == 0) return true;
  }
  return false;
}

ShortToolDeadlines::ShortToolDeadlines() : saved_(MigrationToolDeadlines::current()) {
  const platform::ProcessDeadlines brief{std::chrono::milliseconds(300), std::chrono::milliseconds(200),
                                         std::chrono::milliseconds(500)};
  MigrationToolDeadlines::setCurrent({brief, brief, brief});
}

ShortToolDeadlines::~ShortToolDeadlines() { MigrationToolDeadlines::setCurrent(saved_); }

}  // namespace corvane
