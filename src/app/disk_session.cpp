#include "app/disk_session.h"

namespace corvane {
namespace {

DiskManager::Configuration configurationFor(VolumeWatch watch) {
  auto configuration = DiskManager::Configuration::forThisSystem();
  configuration.watchVolumes = watch == VolumeWatch::on;
  return configuration;
}

}  // namespace

DiskSession::DiskSession(VolumeWatch watch) : manager(queue, FstabManager::shared(), configurationFor(watch)) {}

void DiskSession::runUntil(const std::function<bool()>& finished) {
  // The administrator dialog waits for a person; an hour is the bound of a forgotten prompt.
  queue.runUntil(finished, std::chrono::hours(1));
}

}  // namespace corvane
