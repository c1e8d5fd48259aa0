#include "ui/cleaner_page.h"

#include <QHeaderView>
#include <QVBoxLayout>
#include <map>

#include "settings/byte_format.h"
#include "ui/question_dialog.h"
#include "ui/ui_text.h"

namespace corvane::ui {
namespace {

enum Column { kNameColumn, kSizeColumn, kRiskColumn, kStatusColumn, columnCount };

constexpr int kIdRole = Qt::UserRole;

const CleanCategoryType kCategories[] = {CleanCategoryType::system, CleanCategoryType::development,
                                         CleanCategoryType::largeFiles};

}  // namespace

CleanerPage::CleanerPage(UiServices& services)
    : Page(services),
      intro_(new QLabel(this)),
      scan_(new QPushButton(this)),
      clean_(new QPushButton(this)),
      busy_(new QProgressBar(this)),
      state_(new QLabel(this)),
      table_(new QTreeWidget(this)) {
  auto* layout = new QVBoxLayout(this);
  intro_->setWordWrap(true);
  layout->addWidget(intro_);
  auto* top = new QHBoxLayout;
  state_->setWordWrap(true);
  top->addWidget(state_, 1);
  top->addWidget(busy_);
  top->addWidget(scan_);
  top->addWidget(clean_);
  layout->addLayout(top);
  layout->addWidget(table_, 1);
  busy_->setRange(0, 0);  // the scan tells no fraction: a busy indicator
  busy_->setMaximumWidth(160);
  scan_->setObjectName("scan");
  clean_->setObjectName("clean");
  table_->setObjectName("cleaner-table");
  table_->setColumnCount(columnCount);
  table_->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
  table_->header()->setStretchLastSection(true);
  QObject::connect(scan_, &QPushButton::clicked, [this] { services_.cleaner.startScanning(); });
  QObject::connect(clean_, &QPushButton::clicked, [this] { clean(); });
  QObject::connect(table_, &QTreeWidget::itemChanged, [this](QTreeWidgetItem* row, int column) {
    if (rendering_ || column != kNameColumn || row->data(kNameColumn, kIdRole).isNull()) return;
    services_.cleaner.setItemSelection(
        row->data(kNameColumn, kIdRole).toString().toStdString(),
        row->checkState(kNameColumn) == Qt::Checked ? ItemSelection::selected : ItemSelection::unselected);
  });
  cleaner_ = services_.cleaner.observe([this](DevCleanerChange) { render(); });
  retranslate();
}

void CleanerPage::retranslate() {
  intro_->setText(text("ui.cleaner.intro"));
  scan_->setText(text("ui.cleaner.scan"));
  clean_->setText(text("ui.cleaner.clean"));
  table_->setHeaderLabels({text("ui.cleaner.column.name"), text("ui.cleaner.column.size"),
                           text("ui.cleaner.column.risk"), text("ui.cleaner.column.status")});
  render();
}

QString CleanerPage::itemName(const CleanItem& item) const {
  // Names are looked up again so that a language switch renames what a scan found.
  for (const auto& definition : services_.cleaner.definitions())
    if (definition.id == item.id) return text(definition.nameKey);
  return qstr(item.name);
}

void CleanerPage::render() {
  const auto& cleaner = services_.cleaner;
  const CleanerState state = cleaner.currentState();
  const bool working = state == CleanerState::scanning || state == CleanerState::cleaning;
  busy_->setVisible(working);
  scan_->setEnabled(state != CleanerState::cleaning);
  clean_->setEnabled(state == CleanerState::resultsReady && cleaner.selectedSize() > 0);
  switch (state) {
    case CleanerState::idle:
      state_->setText(text("ui.cleaner.state.idle"));
      break;
    case CleanerState::scanning:
      state_->setText(text("ui.cleaner.state.scanning"));
      break;
    case CleanerState::resultsReady:
      state_->setText(textFormat("ui.cleaner.state.results", formatByteCount(cleaner.totalScannedSize()),
                                 formatByteCount(cleaner.selectedSize())));
      break;
    case CleanerState::cleaning:
      state_->setText(text("ui.cleaner.state.cleaning"));
      break;
    case CleanerState::done:
      state_->setText(textFormat("ui.cleaner.state.done", formatByteCount(cleaner.totalCleanedSize())));
      break;
  }

  rendering_ = true;
  table_->clear();
  for (const auto category : kCategories) {
    QTreeWidgetItem* group = nullptr;
    for (const auto& item : cleaner.items()) {
      if (item.category != category) continue;
      if (!group) {
        group = new QTreeWidgetItem(table_);
        group->setText(kNameColumn, text(categoryTitleKey(category)));
        group->setFirstColumnSpanned(false);
        group->setExpanded(true);
      }
      auto* row = new QTreeWidgetItem(group);
      row->setData(kNameColumn, kIdRole, qstr(item.id));
      row->setFlags(row->flags() | Qt::ItemIsUserCheckable);
      row->setCheckState(kNameColumn, item.isSelected ? Qt::Checked : Qt::Unchecked);
      if (item.status.kind != CleanItemStatus::Kind::pending || state == CleanerState::cleaning)
        row->setFlags(row->flags() & ~Qt::ItemIsEnabled);
      row->setText(kNameColumn, itemName(item));
      row->setToolTip(kNameColumn, text(item.descriptionKey));
      row->setText(kSizeColumn, qstr(formatByteCount(item.sizeBytes)));
      row->setTextAlignment(kSizeColumn, Qt::AlignRight | Qt::AlignVCenter);
      const bool warning = item.riskLevel == CleanRiskLevel::warning;
      row->setText(kRiskColumn, warning ? "⚠ " + text("cleaner.risk.warning") : text("cleaner.risk.safe"));
      if (warning) row->setToolTip(kRiskColumn, text("cleaner.warning.rebuild"));
      switch (item.status.kind) {
        case CleanItemStatus::Kind::pending:
          row->setText(kStatusColumn, text(item.descriptionKey));
          break;
        case CleanItemStatus::Kind::success:
          row->setText(kStatusColumn, text("ui.cleaner.status.cleaned"));
          break;
        case CleanItemStatus::Kind::failed:
          row->setText(kStatusColumn, item.status.failure ? qstr(item.status.failure->message()) : text("ui.failed"));
          break;
      }
      row->setToolTip(kStatusColumn, row->text(kStatusColumn));
    }
    if (group) group->setExpanded(true);
  }
  rendering_ = false;
}

void CleanerPage::clean() {
  const auto& cleaner = services_.cleaner;
  QString list;
  for (const auto& item : cleaner.items())
    if (item.isSelected && item.status.kind == CleanItemStatus::Kind::pending)
      list += "\n• " + itemName(item) + " (" + qstr(formatByteCount(item.sizeBytes)) + ")";
  ask(this,
      {text("ui.cleaner.confirm_title"),
       textFormat("ui.cleaner.confirm", formatByteCount(cleaner.selectedSize())) + "\n" + list,
       {text("ui.cleaner.clean"), text("ui.cancel")}},
      [this](int answer) {
        if (answer == 0) services_.cleaner.startCleaning();
      });
}

}  // namespace corvane::ui
