// Copies of single objects that the engine makes outside the recursive copier: a regular file
// with its data and metadata (repairing a damaged copy), and the metadata of one object onto
// another (a directory rebuilt in place).
//
// Error contract: PosixError with errno and the path concerned. A copy that fails after
// creating `to` removes what it created.
#pragma once

#include <string>

namespace corvane::platform {

// Creates `to` (never replacing anything) with the data of the regular file `from`, holes kept
// where the volume allows, then its owner, mode, ACL, extended attributes and times. Neither
// path is followed if it is a link. (macOS: copyfile COPYFILE_ALL | COPYFILE_EXCL | COPYFILE_NOFOLLOW.)
void copyRegularFile(const std::string& from, const std::string& to);

// Owner, mode, ACL, extended attributes and times of `from` onto the existing `to`, neither
// followed. (macOS: copyfile COPYFILE_ACL | COPYFILE_STAT | COPYFILE_XATTR | COPYFILE_NOFOLLOW.)
// An owner that only an administrator could give is left as it is when not running as one.
void copyObjectMetadata(const std::string& from, const std::string& to);

}  // namespace corvane::platform
