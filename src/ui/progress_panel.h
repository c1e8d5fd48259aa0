// The progress panel: one row per item of the running batch or operation with its phase, bytes,
// entries, rate and time left from the tracker's samples, then each item's outcome; Cancel stops
// the items still copying or verifying, and each is rolled back.
#pragma once

#include <QLabel>
#include <QPushButton>
#include <QTreeWidget>
#include <map>
#include <string>
#include <vector>

#include "ui/page.h"

namespace corvane::ui {

class ProgressPanel : public QWidget {
 public:
  explicit ProgressPanel(UiServices& services);
  void retranslate();

 private:
  void takeSample(const std::vector<MigrationItemProgress>& items);
  void render();

  UiServices& services_;
  QLabel* status_;
  QTreeWidget* table_;
  QPushButton* cancel_;
  std::vector<std::string> order_;
  std::map<std::string, MigrationItemProgress> latest_;
  std::string runID_;
  Subscription progress_;
  Subscription state_;
};

}  // namespace corvane::ui
