#include "disks/write_probe.h"

#include <fcntl.h>
#include <unistd.h>

#include "platform/atomic_file_replacement.h"
#include "platform/posix_error.h"
#include "platform/unique_fd.h"
#include "support/uuid.h"

namespace corvane {

std::optional<std::string> probeWrite(const std::string& volumePath, std::string_view prefix) {
  const std::string name = std::string(prefix) + makeUuidString();
  try {
    platform::UniqueFd root(open(volumePath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root) platform::throwErrno(volumePath);
    platform::AtomicFileReplacement probe(root.get(), name, volumePath + "/" + name);
    probe.write("test");
    probe.commit();
    unlinkat(root.get(), name.c_str(), 0);
    return std::nullopt;
  } catch (const std::system_error& error) {
    return std::string(error.what());
  }
}

}  // namespace corvane
