// Settings: the interface language (follow the system, English, Simplified or Traditional
// Chinese), switched at once for every visible text and saved for the next start.
#pragma once

#include <QComboBox>
#include <QLabel>

#include "ui/page.h"

namespace corvane::ui {

class SettingsPage : public Page {
 public:
  explicit SettingsPage(UiServices& services);
  const char* titleKey() const override { return "ui.page.settings"; }
  void retranslate() override;

 private:
  QLabel* languageLabel_;
  QComboBox* language_;
  QLabel* note_;
  bool rendering_ = false;
};

}  // namespace corvane::ui
