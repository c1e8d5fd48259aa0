// macOS: the system's recursive copy engine with its status callback, events passed through.
#include <copyfile.h>
#include <errno.h>

#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/tree_copier.h"

namespace corvane::platform {
namespace {

struct Bridge {
  const CopyCallback* callback;
};

int answerCode(CopyAnswer answer) {
  switch (answer) {
    case CopyAnswer::skip:
      return COPYFILE_SKIP;
    case CopyAnswer::quit:
      return COPYFILE_QUIT;
    case CopyAnswer::proceed:
      break;
  }
  return COPYFILE_CONTINUE;
}

int status(int what, int stage, copyfile_state_t state, const char* src, const char* dst, void* context) {
  auto* bridge = static_cast<Bridge*>(context);
  CopyWhat kind;
  switch (what) {
    case COPYFILE_RECURSE_FILE:
      kind = CopyWhat::recurseFile;
      break;
    case COPYFILE_RECURSE_DIR:
      kind = CopyWhat::recurseDirectory;
      break;
    case COPYFILE_RECURSE_DIR_CLEANUP:
      kind = CopyWhat::recurseDirectoryCleanup;
      break;
    case COPYFILE_COPY_DATA:
      kind = CopyWhat::copyData;
      break;
    default:
      return COPYFILE_CONTINUE;
  }
  CopyStage phase = CopyStage::progress;
  switch (stage) {
    case COPYFILE_START:
      phase = CopyStage::start;
      break;
    case COPYFILE_FINISH:
      phase = CopyStage::finish;
      break;
    case COPYFILE_ERR:
      phase = CopyStage::error;
      break;
    default:
      break;
  }
  off_t copied = 0;
  if (kind == CopyWhat::copyData && phase == CopyStage::progress) {
    copyfile_state_get(state, COPYFILE_STATE_COPIED, &copied);
  }
  const std::string source = src ? src : "";
  const std::string destination = dst ? dst : "";
  return answerCode(
      (*bridge->callback)(CopyEvent{kind, phase, source, destination, copied, phase == CopyStage::error ? errno : 0}));
}

}  // namespace

void copyTree(const std::string& source, const std::string& destination, const CopyCallback& callback) {
  if (statNoFollow(AT_FDCWD, destination)) throwErrno(EEXIST, destination);
  copyfile_state_t state = copyfile_state_alloc();
  if (state == nullptr) throwErrno(destination);
  Bridge bridge{&callback};
  if (copyfile_state_set(state, COPYFILE_STATE_STATUS_CB, reinterpret_cast<const void*>(&status)) != 0 ||
      copyfile_state_set(state, COPYFILE_STATE_STATUS_CTX, &bridge) != 0) {
    const int error = errno;
    copyfile_state_free(state);
    throwErrno(error, destination);
  }
  const int result =
      copyfile(source.c_str(), destination.c_str(), state,
               COPYFILE_ALL | COPYFILE_RECURSIVE | COPYFILE_EXCL | COPYFILE_NOFOLLOW | COPYFILE_DATA_SPARSE);
  const int error = errno;
  copyfile_state_free(state);
  if (result != 0) throwErrno(error, destination);
}

}  // namespace corvane::platform
