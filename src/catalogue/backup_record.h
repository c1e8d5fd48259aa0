// One retained older copy of a migrated item, kept beside it on the external disk.
#pragma once

#include <string>

#include "catalogue/reference_date.h"

namespace corvane {

struct BackupRecord {
  std::string id;            // canonical upper-case UUID
  std::string backupPath;    // standardized (no ".", "..", trailing slash) once reconciled
  ReferenceDate backupDate;  // taken from the copy's name
  bool exists = false;       // something stood at backupPath when last reconciled

  bool operator==(const BackupRecord&) const = default;
};

}  // namespace corvane
