#include "ui/progress_panel.h"

#include <QHeaderView>
#include <QVBoxLayout>
#include <algorithm>

#include "settings/byte_format.h"
#include "settings/duration_format.h"
#include "support/paths.h"
#include "ui/ui_text.h"

namespace corvane::ui {
namespace {

using Phase = MigrationItemProgress::Phase;
using Kind = MigrationManager::ItemOutcome::Kind;

enum Column {
  kNameColumn,
  kPhaseColumn,
  kBytesColumn,
  kEntriesColumn,
  kRateColumn,
  kRemainingColumn,
  kOutcomeColumn,
  columnCount
};

bool finished(Phase phase) { return phase == Phase::done || phase == Phase::failed || phase == Phase::skipped; }

const char* outcomeKey(Kind kind) {
  switch (kind) {
    case Kind::succeeded:
      return "ui.outcome.succeeded";
    case Kind::failed:
      return "ui.outcome.failed";
    case Kind::skipped:
      return "ui.outcome.skipped";
    case Kind::deferred:
      return "ui.outcome.deferred";
  }
  return "ui.outcome.failed";
}

// The columns of one sample, as the terminal's progress line shows them.
QStringList describe(const MigrationItemProgress& item) {
  QStringList cells(columnCount);
  cells[kNameColumn] = qstr(lastComponent(item.name));
  cells[kPhaseColumn] = qstr(localized("progress.phase." + std::string(phaseName(item.phase))));
  if (item.phase == Phase::scanning) cells[kEntriesColumn] = textFormat("progress.detail.scanned", item.scannedEntries);
  if (item.phase != Phase::copying && item.phase != Phase::verifying) return cells;
  const bool copying = item.phase == Phase::copying;
  const std::int64_t done = copying ? item.copiedBytes : item.verifiedBytes;
  const std::int64_t total = copying ? item.totalBytes : item.verificationBytes;
  const std::int64_t entriesDone = copying ? item.copiedEntries : item.verifiedEntries;
  if (item.measurable && total > 0)
    cells[kBytesColumn] = textFormat("progress.detail.bytes", formatByteCount(done), formatByteCount(total));
  cells[kEntriesColumn] = item.totalEntries > 0 ? textFormat("progress.detail.entries", entriesDone, item.totalEntries)
                                                : textFormat("progress.detail.unmeasured", entriesDone);
  if (copying && item.bytesPerSecond > 0) {
    cells[kRateColumn] =
        textFormat("progress.detail.rate", formatByteCount(static_cast<std::int64_t>(item.bytesPerSecond)));
    const double left = static_cast<double>(std::max<std::int64_t>(total - done, 0)) / item.bytesPerSecond;
    cells[kRemainingColumn] = qstr(formatDuration(left));
  }
  return cells;
}

}  // namespace

ProgressPanel::ProgressPanel(UiServices& services)
    : services_(services), status_(new QLabel(this)), table_(new QTreeWidget(this)), cancel_(new QPushButton(this)) {
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  auto* top = new QHBoxLayout;
  status_->setWordWrap(true);
  top->addWidget(status_, 1);
  top->addWidget(cancel_);
  layout->addLayout(top);
  layout->addWidget(table_);
  table_->setObjectName("progress-table");
  table_->setRootIsDecorated(false);
  table_->setColumnCount(columnCount);
  table_->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
  table_->header()->setStretchLastSection(true);
  cancel_->setObjectName("cancel");
  QObject::connect(cancel_, &QPushButton::clicked, [this] {
    services_.cancelRequested = true;
    cancel_->setEnabled(false);
  });
  progress_ = services_.migration.observeProgress([this](const auto& items) { takeSample(items); });
  state_ = services_.migration.observe([this] { render(); });
  retranslate();
}

void ProgressPanel::retranslate() {
  cancel_->setText(text("ui.progress.cancel"));
  table_->setHeaderLabels({text("ui.progress.column.item"), text("ui.progress.column.phase"),
                           text("ui.progress.column.bytes"), text("ui.progress.column.entries"),
                           text("ui.progress.column.rate"), text("ui.progress.column.remaining"),
                           text("ui.progress.column.outcome")});
  render();
}

void ProgressPanel::takeSample(const std::vector<MigrationItemProgress>& items) {
  if (services_.migration.progressRunID() != runID_) {
    runID_ = services_.migration.progressRunID();
    order_.clear();
    latest_.clear();
  }
  for (const auto& item : items) {
    if (!latest_.count(item.name)) order_.push_back(item.name);
    latest_[item.name] = item;
  }
  render();
}

void ProgressPanel::render() {
  const auto& migration = services_.migration;
  const bool busy = migration.isMigrating() || !migration.migratingBackItems().empty();
  cancel_->setEnabled(busy && !services_.cancelRequested);
  // Items that have an outcome but never showed a sample still get their row.
  for (const auto& result : migration.outcomes())
    if (!latest_.count(result.source)) {
      order_.push_back(result.source);
      latest_[result.source].name = result.source;
    }
  if (busy) {
    const auto active = std::count_if(latest_.begin(), latest_.end(), [](const auto& entry) {
      return entry.second.phase != Phase::waiting && !finished(entry.second.phase);
    });
    status_->setText(text("migration.in_progress") + " · " + textFormat("progress.active_items_count", active));
  } else if (!migration.outcomes().empty()) {
    const auto snapshot = migration.activeMigrationProgress();
    status_->setText(textFormat("ui.progress.summary", snapshot.succeeded, snapshot.failed, snapshot.skipped));
  } else {
    status_->setText(text("ui.progress.idle"));
  }
  table_->setUpdatesEnabled(false);
  while (table_->topLevelItemCount() > static_cast<int>(order_.size())) delete table_->takeTopLevelItem(0);
  for (std::size_t i = 0; i < order_.size(); ++i) {
    QTreeWidgetItem* row = table_->topLevelItem(static_cast<int>(i));
    if (!row) row = new QTreeWidgetItem(table_);
    const auto& item = latest_[order_[i]];
    QStringList cells = describe(item);
    for (const auto& result : migration.outcomes()) {
      if (result.source != item.name) continue;
      // The last sample may predate the end of a quick item: the outcome decides the phase.
      MigrationItemProgress ended = item;
      ended.phase = result.kind == Kind::succeeded ? Phase::done
                    : result.kind == Kind::failed  ? Phase::failed
                                                   : Phase::skipped;
      cells = describe(ended);
      cells[kOutcomeColumn] = text(outcomeKey(result.kind));
      if (!result.message.empty()) cells[kOutcomeColumn] += ": " + qstr(result.message);
      if (!result.recordSaved) cells[kOutcomeColumn] += " " + text("ui.outcome.record_not_saved");
    }
    for (int column = 0; column < columnCount; ++column) {
      row->setText(column, cells[column]);
      row->setToolTip(column, cells[column]);
    }
  }
  table_->setUpdatesEnabled(true);
}

}  // namespace corvane::ui
