// macOS lists open files with lsof: its kernel interfaces (proc_pidinfo per descriptor) would
// need the same privileges and give no cheaper complete view, so there is no native scan here.
#include <sys/types.h>

#include <stdexcept>

#include "platform/open_file_lister.h"

namespace corvane::platform {

OpenFileLister defaultOpenFileLister() { return OpenFileLister::lsof; }

const char* lsofExecutablePath() { return "/usr/sbin/lsof"; }

std::int64_t deviceNumber(unsigned major, unsigned minor) { return static_cast<std::int64_t>(makedev(major, minor)); }

std::string listOpenFilesNatively() {
  throw std::logic_error("there is no native open-file scan on macOS; lsof is the lister");
}

std::string listOpenFilesNatively(const OpenFileQuery&) { return listOpenFilesNatively(); }

}  // namespace corvane::platform
