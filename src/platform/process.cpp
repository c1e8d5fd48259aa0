#include "platform/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <thread>

#include "platform/posix_error.h"
#include "platform/unique_fd.h"

extern char** environ;

namespace corvane::platform {
namespace {

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

Pipe makePipe() {
  int fds[2];
  if (pipe(fds) != 0) throwErrno("pipe");
  Pipe result{UniqueFd(fds[0]), UniqueFd(fds[1])};
  fcntl(fds[0], F_SETFD, FD_CLOEXEC);
  fcntl(fds[1], F_SETFD, FD_CLOEXEC);
  return result;
}

void ignoreBrokenPipes() {
  // Writing a child's input after it exited must fail with EPIPE, not end Corvane.
  static std::once_flag once;
  std::call_once(once, [] { signal(SIGPIPE, SIG_IGN); });
}

ProcessExit decodeStatus(int status) {
  ProcessExit exit;
  if (WIFEXITED(status)) {
    exit.exitCode = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    exit.signal = WTERMSIG(status);
  }
  return exit;
}

// Keeps the spawn attributes and file actions alive until posix_spawn has used them.
class SpawnSetup {
 public:
  SpawnSetup() {
    posix_spawn_file_actions_init(&actions_);
    posix_spawnattr_init(&attributes_);
  }
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

}  // namespace

struct ChildProcess::State {
  pid_t pid = -1;
  bool reaped = false;
  bool ownGroup = true;
  std::optional<ProcessExit> exit;
  std::size_t limit = 0;

  mutable std::mutex mutex;
  std::string output;
  std::string error;
  bool truncated = false;
  bool readFailed = false;
  bool readersDone = false;

  UniqueFd outputRead;
  UniqueFd errorRead;
  UniqueFd inputWrite;
  std::string input;
  Pipe wake;
  std::thread reader;

  void append(std::string& target, const char* data, std::size_t length) {
    std::lock_guard lock(mutex);
    std::size_t room = target.size() < limit ? limit - target.size() : 0;
    if (length > room) truncated = true;
    target.append(data, std::min(length, room));
  }

  // Drains both pipes (and feeds the input) until end of file or a wake-up.
  void readLoop() {
    std::size_t inputOffset = 0;
    char buffer[65536];
    while (outputRead || errorRead || inputWrite) {
      pollfd fds[4];
      int count = 0;
      fds[count++] = {wake.read.get(), POLLIN, 0};
      int outIndex = -1, errIndex = -1, inIndex = -1;
      if (outputRead) {
        outIndex = count;
        fds[count++] = {outputRead.get(), POLLIN, 0};
      }
      if (errorRead) {
        errIndex = count;
        fds[count++] = {errorRead.get(), POLLIN, 0};
      }
      if (inputWrite) {
        inIndex = count;
        fds[count++] = {inputWrite.get(), POLLOUT, 0};
      }
      if (poll(fds, static_cast<nfds_t>(count), -1) < 0) {
        if (errno == EINTR) continue;
        break;
      }
      if (fds[0].revents) break;
      auto drain = [&](int index, UniqueFd& fd, std::string& target) {
        if (index < 0 || !fds[index].revents) return;
        ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n > 0) {
          append(target, buffer, static_cast<std::size_t>(n));
        } else if (n == 0) {
          fd.reset();
        } else if (errno != EINTR && errno != EAGAIN) {
          std::lock_guard lock(mutex);
          readFailed = true;
          fd.reset();
        }
      };
      drain(outIndex, outputRead, output);
      drain(errIndex, errorRead, error);
      if (inIndex >= 0 && fds[inIndex].revents) {
        ssize_t n = ::write(inputWrite.get(), input.data() + inputOffset, input.size() - inputOffset);
        if (n > 0) inputOffset += static_cast<std::size_t>(n);
        if (n < 0 && errno != EINTR && errno != EAGAIN) inputWrite.reset();
        if (inputOffset >= input.size()) inputWrite.reset();
      }
    }
    inputWrite.reset();
    std::lock_guard lock(mutex);
    readersDone = !outputRead && !errorRead;
  }

  void stopReader() {
    if (reader.joinable()) {
      char byte = 1;
      [[maybe_unused]] ssize_t ignored = ::write(wake.write.get(), &byte, 1);
      reader.join();
    }
  }

  void signalChild(int sig) {
    if (pid <= 0 || reaped) return;
    ::kill(ownGroup ? -pid : pid, sig);
  }
};

ChildProcess::ChildProcess(std::unique_ptr<State> state) : state_(std::move(state)) {}
ChildProcess::ChildProcess(ChildProcess&&) noexcept = default;
ChildProcess& ChildProcess::operator=(ChildProcess&&) noexcept = default;

ChildProcess::~ChildProcess() {
  if (!state_) return;
  if (!state_->reaped && state_->pid > 0) {
    state_->signalChild(SIGKILL);
    int status = 0;
    while (waitpid(state_->pid, &status, 0) < 0 && errno == EINTR) {
    }
    state_->reaped = true;
  }
  state_->stopReader();
}

ChildProcess ChildProcess::spawn(const ProcessRequest& request) {
  ignoreBrokenPipes();
  auto state = std::make_unique<State>();
  state->limit = request.outputLimit;
  state->ownGroup = request.ownProcessGroup;
  state->wake = makePipe();
  Pipe output = makePipe();
  Pipe error = makePipe();
  std::optional<Pipe> input;
  if (request.standardInput) input = makePipe();

  SpawnSetup setup;
  posix_spawn_file_actions_adddup2(&setup.actions_, output.write.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&setup.actions_, error.write.get(), STDERR_FILENO);
  if (input) {
    posix_spawn_file_actions_adddup2(&setup.actions_, input->read.get(), STDIN_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&setup.actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  }
  if (!request.workingDirectory.empty()) {
    posix_spawn_file_actions_addchdir_np(&setup.actions_, request.workingDirectory.c_str());
  }
  short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
  if (request.ownProcessGroup) {
    flags |= POSIX_SPAWN_SETPGROUP;
    posix_spawnattr_setpgroup(&setup.attributes_, 0);
  }
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&setup.attributes_, &none);
  sigset_t defaults;
  sigemptyset(&defaults);
  for (int sig : {SIGPIPE, SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGCHLD, SIGUSR1, SIGUSR2}) sigaddset(&defaults, sig);
  posix_spawnattr_setsigdefault(&setup.attributes_, &defaults);
  posix_spawnattr_setflags(&setup.attributes_, flags);

  std::vector<std::string> argumentStorage;
  argumentStorage.push_back(request.executable);
  argumentStorage.insert(argumentStorage.end(), request.arguments.begin(), request.arguments.end());
  std::vector<char*> argv;
  for (auto& argument : argumentStorage) argv.push_back(argument.data());
  argv.push_back(nullptr);

  std::vector<std::string> environmentStorage;
  std::vector<char*> envp;
  char** environment = environ;
  if (request.environment) {
    for (const auto& [name, value] : *request.environment) environmentStorage.push_back(name + "=" + value);
    for (auto& entry : environmentStorage) envp.push_back(entry.data());
    envp.push_back(nullptr);
    environment = envp.data();
  }

  pid_t pid = -1;
  const bool searchPath = request.executable.find('/') == std::string::npos;
  int result = searchPath ? posix_spawnp(&pid, request.executable.c_str(), &setup.actions_, &setup.attributes_,
                                         argv.data(), environment)
                          : posix_spawn(&pid, request.executable.c_str(), &setup.actions_, &setup.attributes_,
                                        argv.data(), environment);
  if (result != 0) throwErrno(result, request.executable);

  state->pid = pid;
  state->outputRead = std::move(output.read);
  state->errorRead = std::move(error.read);
  if (input) {
    state->input = *request.standardInput;
    state->inputWrite = std::move(input->write);
    fcntl(state->inputWrite.get(), F_SETFL, O_NONBLOCK);
    if (state->input.empty()) state->inputWrite.reset();
  }
  // The parent's copies of the child's ends must close, or end of file never arrives.
  output.write.reset();
  error.write.reset();
  if (input) input->read.reset();
  State* raw = state.get();
  state->reader = std::thread([raw] { raw->readLoop(); });
  return ChildProcess(std::move(state));
}

pid_t ChildProcess::pid() const { return state_->pid; }

std::optional<ProcessExit> ChildProcess::waitFor(std::chrono::milliseconds timeout) {
  if (state_->reaped) return state_->exit;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  auto pause = std::chrono::microseconds(500);
  for (;;) {
    int status = 0;
    pid_t result = waitpid(state_->pid, &status, WNOHANG);
    if (result == state_->pid) {
      state_->reaped = true;
      state_->exit = decodeStatus(status);
      return state_->exit;
    }
    if (result < 0 && errno != EINTR) {
      // Someone else reaped it (a caller's own SIGCHLD handling): treat as ended unknown.
      state_->reaped = true;
      state_->exit = ProcessExit{};
      return state_->exit;
    }
    auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return std::nullopt;
    std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(pause, deadline - now));
    pause = std::min(pause * 2, std::chrono::microseconds(20000));
  }
}

void ChildProcess::terminate() { state_->signalChild(SIGTERM); }
void ChildProcess::kill() { state_->signalChild(SIGKILL); }

bool ChildProcess::finishOutput(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    {
      std::lock_guard lock(state_->mutex);
      if (state_->readersDone) break;
    }
    if (std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  state_->stopReader();
  std::lock_guard lock(state_->mutex);
  return state_->readersDone;
}

std::string ChildProcess::standardOutput() const {
  std::lock_guard lock(state_->mutex);
  return state_->output;
}

std::string ChildProcess::standardError() const {
  std::lock_guard lock(state_->mutex);
  return state_->error;
}

bool ChildProcess::outputTruncated() const {
  std::lock_guard lock(state_->mutex);
  return state_->truncated;
}

bool ChildProcess::outputReadFailed() const {
  std::lock_guard lock(state_->mutex);
  return state_->readFailed;
}

ProcessResult runProcess(const ProcessRequest& request, const ProcessDeadlines& deadlines) {
  ChildProcess child = ChildProcess::spawn(request);
  ProcessResult result;
  auto exit = child.waitFor(deadlines.exit);
  if (!exit) {
    result.timedOut = true;
    child.terminate();
    exit = child.waitFor(deadlines.afterTerminate);
    if (!exit) {
      child.kill();
      exit = child.waitFor(std::chrono::milliseconds(5000));
    }
  }
  if (exit) result.exit = *exit;
  result.readersTimedOut = !child.finishOutput(deadlines.readers);
  result.standardOutput = child.standardOutput();
  result.standardError = child.standardError();
  result.outputTruncated = child.outputTruncated();
  result.outputReadFailed = child.outputReadFailed();
  return result;
}

std::map<std::string, std::string> currentEnvironment() {
  std::map<std::string, std::string> result;
  for (char** entry = environ; entry && *entry; ++entry) {
    std::string text(*entry);
    auto equals = text.find('=');
    if (equals == std::string::npos) continue;
    result.emplace(text.substr(0, equals), text.substr(equals + 1));
  }
  return result;
}

}  // namespace corvane::platform
