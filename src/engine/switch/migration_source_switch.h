// Puts a symbolic link to the verified copy where the original item stood, by one atomic
// exchange of two names in the same directory, and moves a staged copy to its final name
// without ever overwriting anything.
#pragma once

#include <functional>
#include <string>

#include "engine/migration_issue.h"

namespace corvane {

// The exchange was made and can be neither confirmed nor undone. The item's path may lead to
// the copy by now and whatever stood there lies under kept(): undoing anything else would be
// guesswork, so whoever catches this leaves everything where it is and says where that is. The
// key and detail are the reason.
class MigrationSwitchStands : public MigrationIssue {
 public:
  MigrationSwitchStands(std::string key, std::string detail, std::string kept)
      : MigrationIssue(std::move(key), std::move(detail)), kept_(std::move(kept)) {}
  const std::string& kept() const noexcept { return kept_; }

 private:
  std::string kept_;
};

// The file operations of a switch, made as the user or through the administrator path.
struct MigrationSwitchOperations {
  // Makes a symbolic link at `link` whose text is `target`.
  std::function<void(const std::string& link, const std::string& target)> create;
  // Swaps two names atomically, never by two renames.
  std::function<void(const std::string& first, const std::string& second)> exchange;
  // Removes a link made by `create`; fails if the name no longer holds a link.
  std::function<void(const std::string& link)> removeLink;

  // The operations as the current user.
  static MigrationSwitchOperations direct();
};

class MigrationSourceSwitch {
 public:
  // Replaces `source` by a link to `target` (the promoted copy, of the same kind) and returns the
  // temporary name "<source>.corvane_backup_<UUID>" that holds the original afterwards.
  // `beforeExchange` runs last before the swap and may throw. A link that is wrong before or
  // after the swap gives "error.migration_copy_mismatch" (after it, the swap is undone first);
  // the new link is removed on every failure, and the source is as it was.
  static std::string install(const std::string& source, const std::string& target,
                             const std::function<void()>& beforeExchange, const MigrationSwitchOperations& operations,
                             const std::string& transferID = {});

  // Swaps two entries of one directory atomically. A different directory, or a file system that
  // cannot swap, gives "migration.preflight.atomic_unsupported" with `first`, and nothing moves.
  static void exchange(const std::string& first, const std::string& second);

  // Moves the staged copy `payload` to `target`, which must not exist
  // ("migration.preflight.target_exists"); an entry that appears at `target` meanwhile is never
  // overwritten. Other failures throw platform::PosixError.
  static void promote(const std::string& payload, const std::string& target);
};

}  // namespace corvane
