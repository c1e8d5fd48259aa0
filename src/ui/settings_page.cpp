#include "ui/settings_page.h"

#include <QFormLayout>
#include <QVBoxLayout>

#include "settings/language_names.h"
#include "settings/localization_manager.h"
#include "ui/ui_text.h"

namespace corvane::ui {
namespace {

const Language kLanguages[] = {Language::system, Language::en, Language::zhHans, Language::zhHant};

}  // namespace

SettingsPage::SettingsPage(UiServices& services)
    : Page(services), languageLabel_(new QLabel(this)), language_(new QComboBox(this)), note_(new QLabel(this)) {
  auto* layout = new QVBoxLayout(this);
  auto* form = new QFormLayout;
  form->addRow(languageLabel_, language_);
  layout->addLayout(form);
  note_->setWordWrap(true);
  layout->addWidget(note_);
  layout->addStretch(1);
  language_->setObjectName("language");
  QObject::connect(language_, &QComboBox::currentIndexChanged, [this](int index) {
    if (rendering_ || index < 0) return;
    // The switch tells the localization manager's observers, the main window among them, which
    // re-render every page; a failed save still switches this run.
    (void)LocalizationManager::shared().setCurrentLanguage(kLanguages[index]);
  });
  retranslate();
}

void SettingsPage::retranslate() {
  rendering_ = true;
  languageLabel_->setText(text("ui.settings.language"));
  note_->setText(text("ui.settings.language_note"));
  language_->clear();
  const Language current = LocalizationManager::shared().savedLanguage();
  for (std::size_t i = 0; i < std::size(kLanguages); ++i) {
    language_->addItem(qstr(languageDisplayName(kLanguages[i])));
    if (kLanguages[i] == current) language_->setCurrentIndex(static_cast<int>(i));
  }
  rendering_ = false;
}

}  // namespace corvane::ui
