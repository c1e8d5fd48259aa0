// Opening and reading files on a disk Corvane does not control (an external disk anyone may
// have written to): the last component is never followed when it is a link, only regular files
// are read, and reads are bounded, so a planted link, FIFO or huge file cannot redirect, hang or
// exhaust the reader.
//
// Error contract: throws PosixError with the path concerned: ELOOP for a link, ENOTDIR for a
// non-directory, EISDIR/EINVAL for a non-regular file, EFBIG beyond the limit.
#pragma once

#include <cstddef>
#include <string>

#include "platform/unique_fd.h"

namespace corvane::platform {

UniqueFd openDirectoryNoFollow(const std::string& path);

// Reads `name` inside the open directory.
std::string readRegularFileNoFollow(int directoryDescriptor, const std::string& name, std::size_t limit,
                                    const std::string& pathForErrors);

}  // namespace corvane::platform
