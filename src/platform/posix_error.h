// A failed system call, keeping errno (so callers can branch on EXDEV, ENOSPC, ENOENT...) and
// the path it concerned. Every platform function reports failures with this type.
#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace corvane::platform {

class PosixError : public std::system_error {
 public:
  PosixError(int code, std::string path)
      : std::system_error(code, std::generic_category(), path), path_(std::move(path)) {}

  int errnoValue() const noexcept { return code().value(); }
  // Empty when the failure concerns no single path (a failed readlink, a pipe).
  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

[[noreturn]] inline void throwErrno(const std::string& path) { throw PosixError(errno, path); }
[[noreturn]] inline void throwErrno(int code, const std::string& path) { throw PosixError(code, path); }

}  // namespace corvane::platform
