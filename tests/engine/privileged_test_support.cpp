#include "engine/privileged_test_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>

#include "fixtures/test_volume.h"
#include "platform/posix_error.h"
#include "platform/process.h"
#include "platform/unique_fd.h"

namespace corvane {

platform::AdministratorResult ShellAdministratorRunner::run(const std::string& shellCommand) {
  commands.push_back(shellCommand);
  if (beforeRun) beforeRun(shellCommand);
  platform::ProcessRequest request;
  request.executable = "/bin/sh";
  request.arguments = {"-c", shellCommand};
  auto result = platform::runProcess(request);
  return platform::interpretShellLauncherResult(result.exit, result.standardOutput + result.standardError);
}

std::string issueKeyOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const MigrationIssue& issue) {
    return issue.key();
  }
  return "";
}

void copyTree(const std::string& from, const std::string& to) {
  platform::ProcessRequest request;
  request.executable = "/bin/cp";
  request.arguments = {"-a", "--", from, to};
  auto result = platform::runProcess(request);
  if (!result.exit.succeeded()) throw std::runtime_error("cp -a failed: " + result.standardError);
}

std::string patternedBytes(std::size_t length, unsigned seed) {
  std::string bytes(length, '\0');
  std::uint64_t state = 0x9E3779B97F4A7C15ULL ^ seed;
  for (auto& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    byte = static_cast<char>(state & 0xFF);
  }
  return bytes;
}

namespace {

// Offset of `marker` in the image, or -1.
off_t findInImage(int image, const std::string& marker) {
  constexpr std::size_t kWindow = 8 << 20;
  std::string window(kWindow + marker.size(), '\0');
  off_t offset = 0;
  for (;;) {
    ssize_t got = ::pread(image, window.data(), window.size(), offset);
    if (got <= 0) return -1;
    auto found = std::string_view(window.data(), static_cast<std::size_t>(got)).find(marker);
    if (found != std::string_view::npos) return offset + static_cast<off_t>(found);
    if (static_cast<std::size_t>(got) < window.size()) return -1;
    offset += static_cast<off_t>(kWindow);
  }
}

}  // namespace

bool deviceHolds(const TestVolume& volume, const std::string& marker) {
  platform::UniqueFd image(::open(volume.device().c_str(), O_RDONLY | O_CLOEXEC));
  if (!image) throw platform::PosixError(errno, volume.device());
  return findInImage(image.get(), marker) >= 0;
}

bool damageOnDevice(const TestVolume& volume, const std::string& marker) {
  {
    platform::UniqueFd root(::open(volume.mountPoint().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root || ::syncfs(root.get()) != 0) throw platform::PosixError(errno, volume.mountPoint());
  }
  platform::UniqueFd image(::open(volume.device().c_str(), O_RDWR | O_CLOEXEC));
  if (!image) throw platform::PosixError(errno, volume.device());
  const off_t found = findInImage(image.get(), marker);
  if (found < 0) return false;
  const off_t position = found + 7;
  const char byte = static_cast<char>(marker[7] ^ 0x5A);
  if (::pwrite(image.get(), &byte, 1, position) != 1 || ::fsync(image.get()) != 0) {
    throw platform::PosixError(errno, volume.device());
  }
  return true;
}

void remountReadOnly(const TestVolume& volume) {
  platform::ProcessRequest request;
  request.executable = "mount";
  request.arguments = {"-o", "remount,ro", volume.mountPoint()};
  auto result = platform::runProcess(request);
  if (!result.exit.succeeded()) throw std::runtime_error("remount failed: " + result.standardError);
}

}  // namespace corvane
