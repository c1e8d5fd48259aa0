// Whether the current user may write, search or delete an object, decided the way the system
// decides it (real user id, read-only volumes, sticky directories). Never throws.
#pragma once

#include <string>

namespace corvane::platform {

bool isWritable(const std::string& path);
// Writable and searchable, for `name` looked up in an open directory (AT_FDCWD for paths).
bool isWritableAndSearchableAt(int directoryDescriptor, const std::string& name);
bool isExecutable(const std::string& path);
// The parent directory must be writable and searchable; in a sticky directory only the owner
// of the entry or of the directory (or root) may remove it.
bool isDeletable(const std::string& path);

}  // namespace corvane::platform
