// The cleaner: a scan with its state, the found items by category with size and risk, the
// selection, and cleaning the selection after a confirmation (Docker's unused data included
// when a Docker client is there).
#pragma once

#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTreeWidget>

#include "ui/page.h"

namespace corvane::ui {

class CleanerPage : public Page {
 public:
  explicit CleanerPage(UiServices& services);
  const char* titleKey() const override { return "ui.page.cleaner"; }
  void retranslate() override;

 private:
  void render();
  void clean();
  QString itemName(const CleanItem& item) const;

  QLabel* intro_;
  QPushButton* scan_;
  QPushButton* clean_;
  QProgressBar* busy_;
  QLabel* state_;
  QTreeWidget* table_;
  bool rendering_ = false;
  Subscription cleaner_;
};

}  // namespace corvane::ui
