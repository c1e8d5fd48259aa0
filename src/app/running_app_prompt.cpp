#include "app/running_app_prompt.h"

#include <unistd.h>

#include <cstdio>
#include <mutex>

#include "engine/running_program_closer.h"
#include "settings/localization.h"

namespace corvane {

bool askToCloseRunningApp(const std::string& path, const std::string& name, const std::vector<pid_t>& running,
                          PresetAnswer preset) {
  static std::mutex oneQuestionAtATime;
  std::lock_guard lock(oneQuestionAtATime);
  std::string pids;
  for (pid_t pid : running) pids += (pids.empty() ? "" : ", ") + std::to_string(pid);
  std::fprintf(stderr, "%s\n", localizedFormat("cli.migrate.running", name, pids).c_str());
  bool close = preset == PresetAnswer::yes;
  if (preset == PresetAnswer::none && isatty(STDIN_FILENO)) {
    std::fprintf(stderr, "%s ", localized("cli.migrate.running_question").c_str());
    std::fflush(stderr);
    char answer[16] = {};
    close = std::fgets(answer, sizeof answer, stdin) && (answer[0] == 'c' || answer[0] == 'C' || answer[0] == '1');
  }
  if (!close) return false;
  const bool closed = closeRunningPrograms(path, running);
  if (!closed) std::fprintf(stderr, "%s\n", localizedFormat("cli.migrate.still_running", name).c_str());
  return closed;
}

}  // namespace corvane
