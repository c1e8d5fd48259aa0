#include "engine/migration_candidates.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>

#include "engine/manifest/migration_entry.h"
#include "engine/migration_item_inspector.h"
#include "platform/item_processes.h"
#include "support/diagnostic_log.h"
#include "support/home_directory.h"
#include "support/paths.h"

namespace corvane {
namespace {

bool isRealDirectory(const std::string& path) {
  const auto entry = MigrationEntry::read(path, AT_FDCWD);
  return entry && entry->kind == MigrationEntry::Kind::directory;
}

std::vector<MigrationCandidates::Candidate> listFolder(const platform::ApplicationFolder& folder) {
  std::vector<MigrationCandidates::Candidate> found;
  DIR* listing = opendir(folder.path.c_str());
  if (listing == nullptr) return found;
  while (dirent* entry = readdir(listing)) {
    const std::string name = entry->d_name;
    if (name == "." || name == ".." || name.starts_with(".")) continue;
    if (folder.bundlesOnly && !name.ends_with(".app")) continue;
    const std::string path = folder.path + "/" + name;
    if (!isRealDirectory(path)) continue;
    MigrationCandidates::Candidate candidate;
    candidate.path = path;
    candidate.name = name;
    candidate.isApplication = true;
    found.push_back(std::move(candidate));
  }
  closedir(listing);
  return found;
}

}  // namespace

MigrationCandidates::Configuration MigrationCandidates::Configuration::forThisSystem() {
  return {platform::applicationFolders(userHomeDirectory())};
}

MigrationCandidates::MigrationCandidates(MainQueue& mainQueue, Configuration configuration)
    : mainQueue_(mainQueue), configuration_(std::move(configuration)) {}

MigrationCandidates::~MigrationCandidates() {
  measuringThread_.request_stop();
  for (auto& thread : stoppedThreads_) thread.request_stop();
}

void MigrationCandidates::refresh() {
  candidates_.clear();
  for (const auto& folder : configuration_.folders)
    for (auto& candidate : listFolder(folder)) candidates_.push_back(std::move(candidate));
  for (const auto& path : added_) {
    if (!isRealDirectory(path)) continue;
    if (std::any_of(candidates_.begin(), candidates_.end(), [&](const Candidate& c) { return c.path == path; }))
      continue;
    Candidate candidate;
    candidate.path = path;
    candidate.name = lastComponent(path);
    candidate.addedByUser = true;
    candidates_.push_back(std::move(candidate));
  }
  sort();
  measure();
}

bool MigrationCandidates::addFolder(const std::string& given) {
  const std::string path = absolutePath(given);
  if (!isRealDirectory(path)) return false;
  if (std::any_of(candidates_.begin(), candidates_.end(), [&](const Candidate& c) { return c.path == path; }))
    return false;
  added_.push_back(path);
  refresh();
  return true;
}

void MigrationCandidates::measure() {
  const std::uint64_t run = ++run_;
  std::vector<Candidate> pending = candidates_;
  measuring_ = !pending.empty();
  observers_.notify();
  if (measuringThread_.joinable()) {
    measuringThread_.request_stop();
    stoppedThreads_.push_back(std::move(measuringThread_));
  }
  if (pending.empty()) return;
  measuringThread_ = std::jthread([this, run, pending = std::move(pending),
                                   lifetime = std::weak_ptr<MigrationCandidates*>(lifetime_)](std::stop_token stop) {
    for (auto candidate : pending) {
      if (stop.stop_requested()) return;
      try {
        candidate.sizeBytes = MigrationItemInspector::scanItem(candidate.path).workload.bytes;
      } catch (const std::exception& error) {
        logDebug("measuring " + candidate.path + ": " + error.what());
      }
      candidate.running = !platform::processesExecutingWithin(candidate.path).empty();
      candidate.measured = true;
      mainQueue_.post([lifetime, run, candidate = std::move(candidate)]() mutable {
        if (auto alive = lifetime.lock()) (*alive)->deliver(run, std::move(candidate));
      });
    }
  });
}

void MigrationCandidates::deliver(std::uint64_t run, Candidate measured) {
  if (run != run_) return;
  for (auto& candidate : candidates_)
    if (candidate.path == measured.path) candidate = std::move(measured);
  measuring_ = std::any_of(candidates_.begin(), candidates_.end(), [](const Candidate& c) { return !c.measured; });
  sort();
  observers_.notify();
}

void MigrationCandidates::sort() {
  std::stable_sort(candidates_.begin(), candidates_.end(), [](const Candidate& a, const Candidate& b) {
    const std::int64_t left = a.sizeBytes.value_or(-1);
    const std::int64_t right = b.sizeBytes.value_or(-1);
    if (left != right) return left > right;
    return a.name < b.name;
  });
}

}  // namespace corvane
