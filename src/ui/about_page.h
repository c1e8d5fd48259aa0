// About: the program's name, version and what it does.
#pragma once

#include <QLabel>

#include "ui/page.h"

namespace corvane::ui {

class AboutPage : public Page {
 public:
  explicit AboutPage(UiServices& services);
  const char* titleKey() const override { return "ui.page.about"; }
  void retranslate() override;

 private:
  QLabel* title_;
  QLabel* version_;
  QLabel* description_;
};

}  // namespace corvane::ui
