#include "engine/transfer/migration_owned_tree.h"

#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "engine/migration_issue.h"
#include "platform/directory_names.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/unique_fd.h"

namespace corvane {
namespace {

class OwnedRemoval {
 public:
  explicit OwnedRemoval(const MigrationOwnedTree::Lookup& recorded) : recorded_(recorded) {}

  // Removes the contents of the open directory `directory` whose relative path is `relative`.
  void removeContents(int directory, const std::string& path, const std::string& relative) {
    for (const auto& name : platform::directoryNames(directory, path)) {
      const std::string childRelative = relative.empty() ? name : relative + "/" + name;
      const std::string childPath = path + "/" + name;
      auto actual = MigrationEntry::read(name, directory);
      if (!actual) continue;  // already gone: nothing of ours is lost
      const MigrationOwnedTree::Record* recorded = recorded_(childRelative);
      if (!recorded || !recorded->matches(*actual)) {
        throw MigrationIssue("migration.safety.conflict", childPath);
      }
      if (actual->kind == MigrationEntry::Kind::directory) {
        platform::UniqueFd child(openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!child) platform::throwErrno(childPath);
        requireSame(child.get(), *actual, childPath);
        removeContents(child.get(), childPath, childRelative);
        if (unlinkat(directory, name.c_str(), AT_REMOVEDIR) != 0) platform::throwErrno(childPath);
      } else if (unlinkat(directory, name.c_str(), 0) != 0) {
        platform::throwErrno(childPath);
      }
    }
  }

  static void requireSame(int descriptor, const MigrationEntry& expected, const std::string& path) {
    auto opened = platform::statDescriptor(descriptor, path);
    if (opened.inode != expected.inode || opened.device != expected.device) {
      throw MigrationIssue("migration.safety.conflict", path);
    }
  }

 private:
  const MigrationOwnedTree::Lookup& recorded_;
};

}  // namespace

void MigrationOwnedTree::remove(const std::string& root, const Record& expectedRoot, const Lookup& recorded,
                                RemovalScope scope) {
  auto actual = MigrationEntry::read(root, AT_FDCWD);
  if (!actual) return;
  if (actual->identity() != expectedRoot.identity() || actual->kind != expectedRoot.kind) {
    throw MigrationIssue("migration.safety.conflict", root);
  }
  OwnedRemoval removal(recorded);
  if (actual->kind == MigrationEntry::Kind::directory) {
    platform::UniqueFd directory(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory) platform::throwErrno(root);
    OwnedRemoval::requireSame(directory.get(), *actual, root);
    removal.removeContents(directory.get(), root, "");
    if (scope == RemovalScope::wholeTree && rmdir(root.c_str()) != 0) platform::throwErrno(root);
  } else if (scope == RemovalScope::wholeTree && unlink(root.c_str()) != 0) {
    platform::throwErrno(root);
  }
}

}  // namespace corvane
