// Counts write operations in progress (migrations, moves back) so that a software update can
// see when the last one has finished before it replaces the program.
#pragma once

#include <mutex>

namespace corvane {

class UpdateActivity {
 public:
  static UpdateActivity& shared();

  void begin();
  void end();
  // Registers one write unless an update is being installed; false (nothing registered) then.
  bool beginOperation();
  // Ends a write registered by beginOperation once its last write is done.
  void endAfterPendingWrites() { end(); }
  // The installer marks the time it replaces the program; writes are refused meanwhile.
  void setInstalling(bool installing);
  int pending() const;

 private:
  mutable std::mutex mutex_;
  int pending_ = 0;
  bool installing_ = false;
};

// Holds one pending write for its lifetime.
class UpdateActivityScope {
 public:
  UpdateActivityScope() { UpdateActivity::shared().begin(); }
  ~UpdateActivityScope() { UpdateActivity::shared().end(); }
  UpdateActivityScope(const UpdateActivityScope&) = delete;
  UpdateActivityScope& operator=(const UpdateActivityScope&) = delete;
};

}  // namespace corvane
