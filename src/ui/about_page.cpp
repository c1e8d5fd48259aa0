#include "ui/about_page.h"

#include <QVBoxLayout>

#include "ui/ui_text.h"

namespace corvane::ui {

AboutPage::AboutPage(UiServices& services)
    : Page(services), title_(new QLabel(this)), version_(new QLabel(this)), description_(new QLabel(this)) {
  auto* layout = new QVBoxLayout(this);
  QFont big = title_->font();
  big.setPointSize(big.pointSize() * 2);
  big.setBold(true);
  title_->setFont(big);
  version_->setObjectName("version");
  description_->setWordWrap(true);
  layout->addWidget(title_);
  layout->addWidget(version_);
  layout->addWidget(description_);
  layout->addStretch(1);
  retranslate();
}

void AboutPage::retranslate() {
  title_->setText(text("app.title"));
  version_->setText(textFormat("ui.about.version", CORVANE_VERSION));
  description_->setText(text("ui.about.description"));
}

}  // namespace corvane::ui
