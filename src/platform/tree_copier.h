// Copies one tree to a new place with a status callback at every step, the way the system's
// recursive copy engine does on macOS: the callback can skip an entry or stop the whole copy,
// and sees the bytes of each file as they are copied. Nothing is ever followed or merged: the
// destination must not exist, links are copied as links.
//
// Everything is copied: data (holes kept), extended attributes and ACLs, owner, mode and
// nanosecond times (a directory's times after its children). No cloning: the copy is real data.
//
// Error contract: a failed system call is reported to the callback (stage error) and then
// thrown as PosixError with the path concerned; a copy stopped by the callback throws
// PosixError(ECANCELED) naming the destination.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace corvane::platform {

enum class CopyWhat { recurseFile, recurseDirectory, recurseDirectoryCleanup, copyData };
enum class CopyStage { start, progress, finish, error };
enum class CopyAnswer { proceed, skip, quit };

struct CopyEvent {
  CopyWhat what;
  CopyStage stage;
  const std::string& source;
  const std::string& destination;
  std::int64_t copiedBytes = 0;  // copyData progress: bytes of this file copied so far
  int error = 0;                 // stage error: errno
};

using CopyCallback = std::function<CopyAnswer(const CopyEvent&)>;

void copyTree(const std::string& source, const std::string& destination, const CopyCallback& callback);

}  // namespace corvane::platform
