#include "engine/preflight/migration_tool_deadlines.h"

#include <mutex>

namespace corvane {
namespace {

std::mutex& deadlinesMutex() {
  static std::mutex mutex;
  return mutex;
}

MigrationToolDeadlines& deadlinesInForce() {
  static MigrationToolDeadlines deadlines;
  return deadlines;
}

}  // namespace

MigrationToolDeadlines MigrationToolDeadlines::current() {
  std::lock_guard lock(deadlinesMutex());
  return deadlinesInForce();
}

void MigrationToolDeadlines::setCurrent(const MigrationToolDeadlines& deadlines) {
  std::lock_guard lock(deadlinesMutex());
  deadlinesInForce() = deadlines;
}

}  // namespace corvane
