// Repairs: what interrupted runs, updaters and forgotten disks left on the external disks and
// beside the items moved from them, each with what its repair does or what to do by hand. The
// ticked repairs run after a confirmation that lists them; an updater's new item goes to its disk
// as a normal migration, whose progress shows on the items page. Examining and repairing run off
// the GUI thread, and the disks are examined again afterwards.
#pragma once

#include <QLabel>
#include <QPushButton>
#include <QTreeWidget>
#include <set>
#include <string>
#include <vector>

#include "disks/disk_doctor.h"
#include "ui/page.h"

namespace corvane::ui {

class RepairsPage : public Page {
 public:
  // The row's full text, as written (the shown one carries invisible break opportunities).
  static constexpr int kDescriptionRole = Qt::UserRole + 1;
  explicit RepairsPage(UiServices& services);
  const char* titleKey() const override { return "ui.page.repairs"; }
  void retranslate() override;

  // What one repair came to, for the summary.
  struct Result {
    std::string finding;  // the finding's text
    DiskDoctor::Repair repair;
  };

 protected:
  void showEvent(QShowEvent* event) override;

 private:
  void examine();
  void render();
  std::vector<DoctorFinding> tickedFindings() const;
  void repair();
  void runRepairs(std::vector<DoctorFinding> findings);
  // The updaters' new items, moved as a batch per disk once the other repairs are done.
  void migrateNextDisk();
  void batchFinished();
  void finish();

  QLabel* intro_;
  QPushButton* examine_;
  QPushButton* repair_;
  QTreeWidget* table_;
  QLabel* status_;
  std::vector<DoctorFinding> findings_;
  std::string examinationError_;
  QString summary_;
  bool rendering_ = false;
  std::set<std::size_t> unticked_;
  bool examining_ = false;
  bool examined_ = false;
  bool repairing_ = false;
  std::uint64_t generation_ = 0;
  std::vector<Result> results_;
  std::vector<DoctorFinding> awaitingBatch_;
  std::vector<DoctorFinding> queuedReplaced_;
  bool wasMigrating_ = false;
  Subscription disks_;
  Subscription migration_;
};

}  // namespace corvane::ui
