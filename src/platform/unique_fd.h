// Owns one file descriptor and closes it once.
#pragma once

#include <unistd.h>

#include <utility>

namespace corvane::platform {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const noexcept { return fd_; }
  explicit operator bool() const noexcept { return fd_ >= 0; }
  int release() noexcept { return std::exchange(fd_, -1); }
  void reset(int fd = -1) noexcept {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }
  // Closes and reports the result: a failed close after writing means the data may be lost.
  int close() noexcept {
    int result = fd_ >= 0 ? ::close(fd_) : 0;
    fd_ = -1;
    return result;
  }

 private:
  int fd_ = -1;
};

}  // namespace corvane::platform
