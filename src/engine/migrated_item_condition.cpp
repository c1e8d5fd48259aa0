#include "engine/migrated_item_condition.h"

#include <fcntl.h>

#include "catalogue/app_manager.h"
#include "engine/manifest/migration_entry.h"

namespace corvane {

const char* conditionName(LinkCondition condition) {
  switch (condition) {
    case LinkCondition::inPlace:
      return "inPlace";
    case LinkCondition::pointsElsewhere:
      return "pointsElsewhere";
    case LinkCondition::replacedByRealItem:
      return "replacedByRealItem";
    case LinkCondition::missing:
      return "missing";
    case LinkCondition::diskMissing:
      return "diskMissing";
  }
  return "missing";
}

LinkCondition conditionOf(const MigratedApp& app) {
  if (!MigrationEntry::read(app.targetPath, AT_FDCWD)) return LinkCondition::diskMissing;
  auto original = MigrationEntry::read(app.originalPath, AT_FDCWD);
  if (!original) return LinkCondition::missing;
  if (original->kind != MigrationEntry::Kind::symbolicLink) return LinkCondition::replacedByRealItem;
  return AppManager::isAppSymlink(app) ? LinkCondition::inPlace : LinkCondition::pointsElsewhere;
}

}  // namespace corvane
