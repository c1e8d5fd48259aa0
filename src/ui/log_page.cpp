#include "ui/log_page.h"

#include <QVBoxLayout>

#include "ui/ui_text.h"

namespace corvane::ui {

LogPage::LogPage(UiServices& services) : Page(services), intro_(new QLabel(this)), log_(new QPlainTextEdit(this)) {
  auto* layout = new QVBoxLayout(this);
  intro_->setWordWrap(true);
  layout->addWidget(intro_);
  layout->addWidget(log_, 1);
  log_->setObjectName("log");
  log_->setReadOnly(true);
  log_->setPlainText(qstr(services_.migration.logText()));
  lines_ = services_.migration.observeLog([this](const std::string& line) {
    // The manager's lines carry their own line ends; the view adds one per block.
    std::string shown = line;
    while (!shown.empty() && shown.back() == '\n') shown.pop_back();
    log_->appendPlainText(qstr(shown));
  });
  retranslate();
}

// The log keeps the language each line was written in, as the log file does.
void LogPage::retranslate() { intro_->setText(text("ui.log.intro")); }

}  // namespace corvane::ui
