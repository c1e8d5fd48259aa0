// A DiskManager for one command-line run: this system's roots and file table, and the queue the
// command drains while it waits.
#pragma once

#include "disks/disk_manager.h"
#include "support/main_queue.h"

namespace corvane {

enum class VolumeWatch { off, on };

struct DiskSession {
  explicit DiskSession(VolumeWatch watch);

  MainQueue queue;
  DiskManager manager;

  // Drains the queue until `finished` holds (or a generous bound passes).
  void runUntil(const std::function<bool()>& finished);
};

}  // namespace corvane
