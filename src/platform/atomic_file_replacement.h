// Replaces one file inside an open directory so that readers see the old contents or the new,
// never a mixture: the data goes to a temporary file beside it, is flushed, and is renamed over
// the old name, then the directory is flushed. Nothing is replaced until commit(); an object
// destroyed without it removes its temporary file.
//
// Error contract: the constructor, write() and commit() throw PosixError.
#pragma once

#include <string>
#include <string_view>

#include "platform/unique_fd.h"

namespace corvane::platform {

class AtomicFileReplacement {
 public:
  // `directoryDescriptor` is duplicated; the caller keeps its own. `name` is a single component.
  AtomicFileReplacement(int directoryDescriptor, std::string name, std::string pathForErrors);
  ~AtomicFileReplacement();
  AtomicFileReplacement(const AtomicFileReplacement&) = delete;
  AtomicFileReplacement& operator=(const AtomicFileReplacement&) = delete;

  void write(std::string_view data);
  void commit();

 private:
  UniqueFd directory_;
  UniqueFd file_;
  std::string name_;
  std::string temporaryName_;
  std::string pathForErrors_;
  bool committed_ = false;
};

}  // namespace corvane::platform
