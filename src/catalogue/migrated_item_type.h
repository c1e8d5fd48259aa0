// The two kinds of migrated item and their short names in the record file ("app", "dir").
#pragma once

#include <optional>
#include <string_view>

namespace corvane {

enum class MigratedItemType { application, directory };

std::string_view storedValue(MigratedItemType type);
// Absent for anything but the two stored values (which makes a record undecodable).
std::optional<MigratedItemType> migratedItemTypeFromStoredValue(std::string_view value);

}  // namespace corvane
