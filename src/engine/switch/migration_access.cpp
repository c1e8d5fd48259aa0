#include "engine/switch/migration_access.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "engine/migration_issue.h"
#include "engine/switch/migration_file_safety.h"
#include "engine/switch/migration_source_switch.h"
#include "engine/switch/migration_verified_removal.h"
#include "engine/verify/migration_integrity_verifier.h"
#include "platform/file_access.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/tree_removal.h"
#include "platform/unique_fd.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"
#include "support/uuid.h"

namespace corvane {
namespace {

using Kind = MigrationEntry::Kind;

// At most one administrator command, and so one password dialog, at a time in the process.
std::mutex& authorizationLock() {
  static std::mutex lock;
  return lock;
}

MigrationEntry readParent(const std::string& parent) {
  auto entry = MigrationEntry::read(parent, AT_FDCWD);
  if (!entry) platform::throwErrno(ENOENT, parent);
  if (entry->kind != Kind::directory) throw MigrationIssue("migration.preflight.parent", parent);
  return *entry;
}

}  // namespace

MigrationAccess::MigrationAccess(std::string source, std::optional<MigrationEntry> originalIdentity,
                                 std::optional<std::string> permissionReference, Configuration configuration)
    : source_(standardizePath(source)),
      parent_(parentPath(source_)),
      administrator_(configuration.administrator ? std::move(configuration.administrator)
                                                 : platform::systemAdministratorRunner()),
      commands_(configuration.commands ? std::move(*configuration.commands)
                                       : MigrationPrivilegedCommands::forThisSystem()),
      requireIdle_(std::move(configuration.requireIdle)) {
  parentIdentity_ = readParent(parent_);
  auto current = MigrationEntry::read(source_, AT_FDCWD);
  if (!current || (originalIdentity && current->identity() != originalIdentity->identity())) {
    throw MigrationIssue("error.migration_source_changed", source_);
  }
  sourceIdentity_ = *current;
  const std::string& reference = permissionReference ? *permissionReference : source_;
  // Decided once: an operation that later meets a permission error fails rather than switching.
  usesAdministrator_ = !(platform::isWritable(parent_) && platform::isDeletable(reference));
}

void MigrationAccess::validateParent() const {
  std::optional<MigrationEntry> current;
  try {
    current = MigrationEntry::read(parent_, AT_FDCWD);
  } catch (const platform::PosixError&) {
  }
  if (!current || current->kind != Kind::directory || current->identity() != parentIdentity_.identity()) {
    throw MigrationIssue("migration.preflight.parent", parent_);
  }
}

void MigrationAccess::runAdministrator(const std::string& command) {
  runAdministrator(command, *platform::systemAdministratorRunner());
}

void MigrationAccess::runAdministrator(const std::string& command, platform::AdministratorRunner& runner) {
  std::lock_guard lock(authorizationLock());
  platform::AdministratorResult result;
  try {
    result = runner.run(command);
  } catch (const std::exception& failure) {
    logError(fmt::format("Migration authorization could not start: {}", failure.what()));
    throw MigrationIssue("migration.preflight.authorization_failed");
  }
  if (result.outcome == platform::AdministratorOutcome::succeeded) return;
  logError(fmt::format("Migration authorization result: {}", result.output));
  if (result.outcome == platform::AdministratorOutcome::cancelled) throw MigrationIssue("migration.preflight.deferred");
  throw MigrationIssue("migration.preflight.authorization_failed");
}

void MigrationAccess::administrate(const std::string& command) const {
  logDebug(fmt::format("Administrator command: {}", command));
  runAdministrator(command, *administrator_);
}

void MigrationAccess::foundationOperation(const std::string& selector, const std::string& path,
                                          const std::optional<std::string>& destination) const {
  administrate(commands_.foundationCommand(selector, path, destination));
}

void MigrationAccess::prepare(const std::string& transferID) {
  validateParent();
  auto status = platform::statNoFollow(AT_FDCWD, source_);
  if (!status) platform::throwErrno(ENOENT, source_);
  if (status->flags & platform::kLockedFlagsMask) throw MigrationIssue("migration.preflight.locked", source_);

  const std::string probe =
      joinPath(parent_, ".corvane-access-" + (transferID.empty() ? makeUuidString() : transferID));
  if (usesAdministrator_) {
    administrate(commands_.rehearsalCommand(probe, source_));
    return;
  }
  if (::mkdir(probe.c_str(), 0700) != 0) platform::throwErrno(probe);
  try {
    const std::string a = joinPath(probe, "a");
    const std::string b = joinPath(probe, "b");
    const std::string link = joinPath(probe, "link");
    if (::mkdir(a.c_str(), 0700) != 0) platform::throwErrno(a);
    if (::rename(a.c_str(), b.c_str()) != 0) platform::throwErrno(b);
    if (::symlink(source_.c_str(), link.c_str()) != 0) platform::throwErrno(link);
    MigrationSourceSwitch::exchange(b, link);
    MigrationSourceSwitch::exchange(b, link);
  } catch (...) {
    try {
      platform::removeTree(probe);
    } catch (const std::exception& failure) {
      logWarning(fmt::format("Rehearsal directory {} could not be removed: {}", probe, failure.what()));
    }
    throw;
  }
  try {
    platform::removeTree(probe);
  } catch (const std::exception& failure) {
    logWarning(fmt::format("Rehearsal directory {} could not be removed: {}", probe, failure.what()));
  }
}

void MigrationAccess::removeLink(const std::string& link) const {
  auto entry = MigrationEntry::read(link, AT_FDCWD);
  if (!entry || entry->kind != Kind::symbolicLink) throw MigrationIssue("error.migration_restore_conflict", link);
  if (usesAdministrator_) {
    foundationOperation(kRemoveItemSelector, link, std::nullopt);
  } else if (::unlink(link.c_str()) != 0) {
    platform::throwErrno(link);
  }
}

void MigrationAccess::exchangeChecked(const std::string& first, const std::string& second) const {
  administrate(commands_.exchangeCommand(first, second, ExchangeCheck::checked));
}

std::string MigrationAccess::install(const std::string& target, const std::function<void()>& beforeExchange,
                                     const std::string& transferID) {
  validateParent();
  auto current = MigrationEntry::read(source_, AT_FDCWD);
  if (!current || current->identity() != sourceIdentity_.identity()) {
    throw MigrationIssue("error.migration_source_changed", source_);
  }

  MigrationSwitchOperations operations;
  if (usesAdministrator_) {
    operations.create = [this](const std::string& link, const std::string& linkTarget) {
      foundationOperation(kCreateSymbolicLinkSelector, link, linkTarget);
    };
    operations.exchange = [this](const std::string& first, const std::string& second) {
      validateParent();
      exchangeChecked(first, second);
    };
  } else {
    operations.create = [](const std::string& link, const std::string& linkTarget) {
      if (::symlink(linkTarget.c_str(), link.c_str()) != 0) platform::throwErrno(link);
    };
    operations.exchange = [this](const std::string& first, const std::string& second) {
      validateParent();
      MigrationSourceSwitch::exchange(first, second);
    };
  }
  operations.removeLink = [this](const std::string& link) { removeLink(link); };

  std::string temporary = MigrationSourceSwitch::install(source_, target, beforeExchange, operations, transferID);
  // The link stands now: a copy that cannot be read back is reported, never answered by undoing.
  std::optional<MigrationEntry> committed;
  try {
    committed = MigrationEntry::read(target, AT_FDCWD);
  } catch (const std::exception&) {
    throw MigrationSwitchStands("error.migration_copy_mismatch", target, temporary);
  }
  if (!committed) throw MigrationSwitchStands("error.migration_copy_mismatch", target, temporary);
  committedTarget_ = std::make_pair(target, *committed);
  return temporary;
}

void MigrationAccess::restore(const MigrationEntry& copy, const std::string& dataSource,
                              const std::function<void()>& beforeExchange) {
  validateParent();
  if (sourceIdentity_.kind != Kind::symbolicLink || !sourceIdentity_.link) {
    throw MigrationIssue("migration.preflight.restore_not_link", source_);
  }
  const std::string& text = *sourceIdentity_.link;
  const std::string linkTarget = !text.empty() && text.front() == '/' ? text : joinPath(parent_, text);
  const MigrationEntry link = MigrationFileSafety::requireRestoreLink(source_, linkTarget, sourceIdentity_);

  auto requireCopy = [&] {
    auto data = MigrationEntry::read(dataSource, AT_FDCWD);
    if (!data || data->kind == Kind::symbolicLink || *data != copy) {
      throw MigrationIssue("error.migration_copy_mismatch", dataSource);
    }
  };
  requireCopy();

  validateParent();
  auto again = MigrationEntry::read(source_, AT_FDCWD);
  if (!again || *again != link) throw MigrationIssue("error.migration_restore_conflict", source_);
  requireCopy();
  if (beforeExchange) beforeExchange();
  if (usesAdministrator_) {
    exchangeChecked(source_, dataSource);
  } else {
    platform::exchangePaths(source_, dataSource);
  }
}

void MigrationAccess::cleanupBackup(const std::string& directory, const MigrationManifest& manifest,
                                    const std::set<std::string>& inactiveSockets,
                                    const std::map<std::string, std::string>& relocatedLinks,
                                    const Checking& checking) {
  // Only after a committed switch is the original a backup: the link must stand at the item's
  // path, pointing at the copy that is still there.
  if (!committedTarget_) throw MigrationIssue("migration.safety.conflict", directory);
  const auto& [target, targetEntry] = *committedTarget_;
  auto atSource = MigrationEntry::read(source_, AT_FDCWD);
  if (!atSource || atSource->kind != Kind::symbolicLink || atSource->link != target) {
    throw MigrationIssue("migration.safety.conflict", source_);
  }
  cleanupVerifiedData(directory, manifest, inactiveSockets, relocatedLinks, checking, target, targetEntry);
}

void MigrationAccess::cleanupRestoredSource(const std::string& directory, const MigrationManifest& manifest,
                                            const std::set<std::string>& inactiveSockets,
                                            const std::map<std::string, std::string>& relocatedLinks,
                                            const std::string& destination, const MigrationEntry& expectedDestination,
                                            const Checking& checking) {
  cleanupVerifiedData(directory, manifest, inactiveSockets, relocatedLinks, checking, destination, expectedDestination);
}

// The data that a verified switch replaced is removed only when every entry is still the object
// the manifest recorded, and each entry is checked again right before it goes.
void MigrationAccess::cleanupVerifiedData(const std::string& directory, const MigrationManifest& manifest,
                                          const std::set<std::string>& inactiveSockets,
                                          const std::map<std::string, std::string>& relocatedLinks,
                                          const Checking& checking, const std::string& destination,
                                          const MigrationEntry& identity) {
  validateParent();
  // The data is removed only while its verified replacement still stands.
  auto replacement = MigrationEntry::read(destination, AT_FDCWD);
  if (!replacement || replacement->identity() != identity.identity()) {
    throw MigrationIssue("migration.safety.conflict", destination);
  }
  const auto present =
      MigrationVerifiedRemoval::readExpectedTree(directory, {manifest, inactiveSockets, relocatedLinks}, checking);
  if (requireIdle_) requireIdle_(directory, manifest);

  const MigrationEntry& rootEntry = *present.find("");
  if (rootEntry.kind != MigrationEntry::Kind::directory) {
    auto now = MigrationEntry::read(directory, AT_FDCWD);
    if (!now || !MigrationVerifiedRemoval::sameApartFromChangeTime(*now, rootEntry))
      throw MigrationIssue("migration.safety.conflict", directory);
    if (usesAdministrator_) {
      foundationOperation(kRemoveItemSelector, directory, std::nullopt);
    } else if (::unlink(directory.c_str()) != 0) {
      platform::throwErrno(directory);
    }
    return;
  }

  platform::UniqueFd rootFd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!rootFd) platform::throwErrno(directory);
  auto opened = platform::statDescriptor(rootFd.get(), directory);
  if (opened.inode != rootEntry.inode || opened.device != rootEntry.device) {
    throw MigrationIssue("migration.safety.conflict", directory);
  }
  auto emptiedDirectories =
      MigrationVerifiedRemoval::removeChildren(rootFd.get(), directory, present,
                                               usesAdministrator_ ? MigrationVerifiedRemoval::DirectoriesLater::yes
                                                                  : MigrationVerifiedRemoval::DirectoriesLater::no);
  rootFd.reset();
  if (usesAdministrator_) {
    // rmdir removes nothing but empty directories, so a name swapped since the check costs no data.
    emptiedDirectories.push_back(directory);
    for (const auto& command : MigrationPrivilegedCommands::removeDirectoriesCommands(emptiedDirectories))
      administrate(command);
  } else {
    auto now = MigrationEntry::read(directory, AT_FDCWD);
    if (!now || now->identity() != rootEntry.identity()) throw MigrationIssue("migration.safety.conflict", directory);
    if (::rmdir(directory.c_str()) != 0) platform::throwErrno(directory);
  }
}

}  // namespace corvane
