// Reads and writes on a file descriptor that finish the job: a call interrupted by a signal is
// repeated and a short transfer is continued, so callers never write that loop themselves.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace corvane {

// Writes all of `data`. False, with errno set, when a write fails.
[[nodiscard]] bool writeAll(int descriptor, std::string_view data);

// Fills `buffer` up to `capacity` bytes, fewer only at the end of the file. The count, or -1
// with errno set when a read fails.
[[nodiscard]] ssize_t readFully(int descriptor, char* buffer, std::size_t capacity);

// Appends everything up to the end of the file to `contents`, refusing (EFBIG) to let it grow
// past `limit` bytes. False, with errno set, when a read fails or the limit is reached.
[[nodiscard]] bool readToEnd(int descriptor, std::string& contents, std::size_t limit = std::string::npos);

}  // namespace corvane
