// The external disks: each accepted disk with its free space, file system and protection, the
// destination choice, protection (automatic, or a command to run by hand with polling until it
// holds), the access problem of the destination, and the drift findings: leftover folders in a
// disk's place with their contents and the repair, renamed disks, and links to relink.
#pragma once

#include <QLabel>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <vector>

#include "disks/disk_facts.h"
#include "ui/page.h"

namespace corvane::ui {

class DisksPage : public Page {
 public:
  explicit DisksPage(UiServices& services);
  const char* titleKey() const override { return "ui.page.disks"; }
  void retranslate() override;

 private:
  void requestFacts();
  void render();
  void renderAlerts();
  std::optional<std::string> selectedDisk() const;
  void protect();
  void protectManually();
  void repairGhost(const std::string& ghost, std::optional<GhostDirectoryContents> contents);
  void remount(const std::string& disk, const std::string& expected);
  void relink(const std::string& disk);
  void showResult(bool success, const std::optional<std::string>& message);

  QLabel* intro_;
  QPushButton* refresh_;
  QWidget* accessBanner_;
  QLabel* accessText_;
  QPushButton* grant_;
  QTreeWidget* table_;
  QPushButton* choose_;
  QPushButton* protect_;
  QPushButton* manual_;
  QLabel* protection_;
  QWidget* alerts_;
  QVBoxLayout* alertsLayout_;
  std::vector<DiskReport> reports_;
  std::uint64_t generation_ = 0;
  Subscription disks_;
};

}  // namespace corvane::ui
