// Runs one external tool as a child process: explicit arguments (never a shell), an optional
// environment and working directory, standard output and error drained into bounded buffers,
// and waits that always end. Every piece of Corvane that runs a tool goes through here.
//
// Error contract: spawn() throws PosixError when the child cannot be started (the path is the
// executable). Waiting, signalling and reading never throw.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace corvane::platform {

struct ProcessRequest {
  std::string executable;                                         // absolute path, or a name looked up in PATH
  std::vector<std::string> arguments;                             // without the program name
  std::optional<std::map<std::string, std::string>> environment;  // absent: inherit
  std::string workingDirectory;                                   // empty: inherit
  std::optional<std::string> standardInput;                       // written, then closed; absent: /dev/null
  std::size_t outputLimit = 16 * 1024 * 1024;                     // per stream; the rest is read and dropped
  // The child leads its own process group, so terminate() and kill() reach what it started.
  bool ownProcessGroup = true;
};

struct ProcessExit {
  int exitCode = -1;  // -1 when ended by a signal
  int signal = 0;     // 0 when it exited
  bool exited() const { return signal == 0; }
  bool succeeded() const { return signal == 0 && exitCode == 0; }
};

class ChildProcess {
 public:
  static ChildProcess spawn(const ProcessRequest& request);

  ChildProcess(ChildProcess&&) noexcept;
  ChildProcess& operator=(ChildProcess&&) noexcept;
  // A child still running is killed and reaped; readers are stopped.
  ~ChildProcess();

  pid_t pid() const;
  // Reaps the child if it ended within `timeout`; absent when it is still running.
  std::optional<ProcessExit> waitFor(std::chrono::milliseconds timeout);
  void terminate();  // SIGTERM
  void kill();       // SIGKILL
  // Waits at most `timeout` for both output pipes to reach end of file (a grandchild may hold
  // them open); afterwards the readers stop either way. True when both ended on their own.
  bool finishOutput(std::chrono::milliseconds timeout);
  // What the streams carried so far (complete after finishOutput).
  std::string standardOutput() const;
  std::string standardError() const;
  bool outputTruncated() const;
  // A read from an output pipe failed (not end of file): what was collected may be incomplete.
  bool outputReadFailed() const;

 private:
  struct State;
  explicit ChildProcess(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

// The bounds of one run: wait for the exit, then terminate and wait again, then kill; and how
// long the readers may take to finish after the exit.
struct ProcessDeadlines {
  std::chrono::milliseconds exit{30000};
  std::chrono::milliseconds afterTerminate{1000};
  std::chrono::milliseconds readers{2000};
};

struct ProcessResult {
  ProcessExit exit;
  bool timedOut = false;         // the exit bound ran out and the child was stopped
  bool readersTimedOut = false;  // the output pipes stayed open past their bound
  bool outputTruncated = false;
  bool outputReadFailed = false;
  std::string standardOutput;
  std::string standardError;
};

// Spawns, waits within the deadlines (terminate, then kill when they run out) and collects the
// output. Always reaps the child before returning.
ProcessResult runProcess(const ProcessRequest& request, const ProcessDeadlines& deadlines = {});

// The current environment as a map, for callers that adjust a few variables.
std::map<std::string, std::string> currentEnvironment();

// Path of the running executable (for helper and probe modes that start the binary itself).
std::string currentExecutablePath();

}  // namespace corvane::platform
