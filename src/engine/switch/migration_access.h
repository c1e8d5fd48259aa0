// The one gate through which a migration changes the place where an item lives: it rehearses
// that the item's directory allows the switch, then makes the link, the exchange, the link
// removal and the clean-ups, as the user or through one administrator-authorised command each.
// Every operation first re-checks that the directory and the item are the objects seen when
// the instance was made.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "engine/manifest/migration_entry.h"
#include "engine/switch/migration_privileged_commands.h"
#include "platform/administrator_runner.h"

namespace corvane {

class MigrationAccess {
 public:
  using Checking = std::function<void(const std::string& relativePath)>;
  // Throws when something still holds a file of the tree at `root` open (the open-file check).
  using RequireIdle = std::function<void(const std::string& root, const MigrationManifest& manifest)>;

  struct Configuration {
    // Runs administrator commands; the system's runner when empty.
    std::shared_ptr<platform::AdministratorRunner> administrator;
    // How privileged operations are written; this system's way when absent.
    std::optional<MigrationPrivilegedCommands> commands;
    // Consulted before a clean-up removes anything; nothing is consulted when empty.
    RequireIdle requireIdle;
  };

  // Reads the item's directory (not a directory: "migration.preflight.parent") and the item
  // (when `originalIdentity` is given it must be that object: "error.migration_source_changed"),
  // and chooses once whether the operations need the administrator: they do unless the
  // directory is writable and `permissionReference` (else the item) deletable.
  MigrationAccess(std::string source, std::optional<MigrationEntry> originalIdentity = std::nullopt,
                  std::optional<std::string> permissionReference = std::nullopt, Configuration configuration = {});

  const std::string& source() const { return source_; }
  bool usesAdministrator() const { return usesAdministrator_; }

  // The rehearsal: in a probe directory ".corvane-access-<UUID>" beside the item, create a
  // directory, rename it, link to the item and exchange twice; the probe is always removed.
  // An item with immutable or append-only flags fails first ("migration.preflight.locked").
  // `transferID` names the probe (a new UUID when empty).
  void prepare(const std::string& transferID = {});

  // Exchanges the item for a link to `target`, running `beforeExchange` just before the swap,
  // and returns the temporary name that now holds the original.
  std::string install(const std::string& target, const std::function<void()>& beforeExchange,
                      const std::string& transferID = {});

  // The way back: the data at `dataSource` (still `copy`, not a link) takes the place of the
  // link at the item's path, which must still be the link this program left.
  void restore(const MigrationEntry& copy, const std::string& dataSource, const std::function<void()>& beforeExchange);

  // Removes the original kept at `directory` after install(), entry by entry against
  // `manifest`: an entry that is not its manifest object any more gives
  // "error.migration_source_changed", a tree that differs in shape "migration.safety.conflict";
  // nothing is removed unless the whole tree matches. Inactive sockets and relocated links are
  // accepted as they are.
  void cleanupBackup(const std::string& directory, const MigrationManifest& manifest,
                     const std::set<std::string>& inactiveSockets,
                     const std::map<std::string, std::string>& relocatedLinks, const Checking& checking = {});
  // The same for the data replaced by restore(), while `destination` must still be
  // `expectedDestination`.
  void cleanupRestoredSource(const std::string& directory, const MigrationManifest& manifest,
                             const std::set<std::string>& inactiveSockets,
                             const std::map<std::string, std::string>& relocatedLinks, const std::string& destination,
                             const MigrationEntry& expectedDestination, const Checking& checking = {});

  // Runs `command` with administrator rights, one command at a time in the whole process. A
  // dismissed dialog gives "migration.preflight.deferred"; a launcher that cannot start or a
  // command that fails, "migration.preflight.authorization_failed".
  static void runAdministrator(const std::string& command);
  static void runAdministrator(const std::string& command, platform::AdministratorRunner& runner);

  static std::string exchangeScript(const std::string& first, const std::string& second, ExchangeCheck check) {
    return MigrationPrivilegedCommands::exchangeScript(first, second, check);
  }

 private:
  void validateParent() const;
  void administrate(const std::string& command) const;
  void foundationOperation(const std::string& selector, const std::string& path,
                           const std::optional<std::string>& destination) const;
  void removeLink(const std::string& link) const;
  void exchangeChecked(const std::string& first, const std::string& second) const;
  void cleanupVerifiedData(const std::string& directory, const MigrationManifest& manifest,
                           const std::set<std::string>& inactiveSockets,
                           const std::map<std::string, std::string>& relocatedLinks, const Checking& checking,
                           const std::string& destination, const MigrationEntry& identity);

  std::string source_;
  std::string parent_;
  MigrationEntry sourceIdentity_;
  bool usesAdministrator_ = false;
  std::shared_ptr<platform::AdministratorRunner> administrator_;
  MigrationEntry parentIdentity_;
  std::optional<std::pair<std::string, MigrationEntry>> committedTarget_;
  MigrationPrivilegedCommands commands_;
  RequireIdle requireIdle_;
};

}  // namespace corvane
