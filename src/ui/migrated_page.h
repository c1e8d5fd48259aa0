// The items moved onto a disk: each record with its link state, size, date and version, and its
// retained versions as rows below it; Move back, Restore this version and Uninstall, each after
// a confirmation that says what will change.
#pragma once

#include <QComboBox>
#include <QLabel>
#include <QPushButton>
#include <QTreeWidget>
#include <optional>
#include <vector>

#include "engine/migrated_item_condition.h"
#include "ui/page.h"

namespace corvane::ui {

class MigratedPage : public Page {
 public:
  explicit MigratedPage(UiServices& services);
  const char* titleKey() const override { return "ui.page.migrated"; }
  void retranslate() override;

  // What the page shows of one record, read off the GUI thread.
  struct Row {
    MigratedApp app;
    LinkCondition condition = LinkCondition::missing;
    std::optional<std::int64_t> sizeBytes;
    std::optional<std::string> version;
    std::vector<bool> backupExists;
  };
  struct Listing {
    std::string disk;
    std::vector<Row> rows;
    bool rebuiltByScan = false;
  };

 private:
  std::optional<std::string> chosenDisk() const;
  void reload();
  void render();
  // The record (and backup version) of the selected row.
  const Row* selectedRow(int* backupIndex) const;
  void moveBack();
  void restore();
  void uninstall();
  void finished(const MigrationManager::OperationResult& result);
  void refused();

  QLabel* intro_;
  QComboBox* disk_;
  QPushButton* refresh_;
  QTreeWidget* table_;
  QLabel* status_;
  QPushButton* back_;
  QPushButton* restore_;
  QPushButton* uninstall_;
  Listing listing_;
  bool loading_ = false;
  std::uint64_t generation_ = 0;
  bool wasBusy_ = false;
  Subscription disks_;
  Subscription records_;
  Subscription migration_;
};

}  // namespace corvane::ui
