// The migration log as the managers write it, line by line.
#pragma once

#include <QLabel>
#include <QPlainTextEdit>

#include "ui/page.h"

namespace corvane::ui {

class LogPage : public Page {
 public:
  explicit LogPage(UiServices& services);
  const char* titleKey() const override { return "ui.page.log"; }
  void retranslate() override;

 private:
  QLabel* intro_;
  QPlainTextEdit* log_;
  Subscription lines_;
};

}  // namespace corvane::ui
