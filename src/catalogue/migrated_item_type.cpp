#include "catalogue/migrated_item_type.h"

namespace corvane {

std::string_view storedValue(MigratedItemType type) {
  switch (type) {
    case MigratedItemType::application:
      return "app";
    case MigratedItemType::directory:
      return "dir";
  }
  return "dir";
}

std::optional<MigratedItemType> migratedItemTypeFromStoredValue(std::string_view value) {
  if (value == "app") return MigratedItemType::application;
  if (value == "dir") return MigratedItemType::directory;
  return std::nullopt;
}

}  // namespace corvane
