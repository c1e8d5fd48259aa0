// What reading extended attributes needs on both systems, whose calls differ only in their
// arguments: a value or name list read at its current size, and the names of such a list.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace corvane::platform {

// `call(buffer, size)` is one of the *getxattr / *listxattr calls; with no buffer it answers
// the size. The size can change between asking and reading, so that is retried a few times.
// Throws PosixError with `pathForErrors` on failure.
std::string readSized(const std::function<ssize_t(char*, std::size_t)>& call, const std::string& pathForErrors);

// The names in a list of NUL-terminated names.
std::vector<std::string> splitNames(const std::string& names);

}  // namespace corvane::platform
