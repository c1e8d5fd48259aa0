#include "ui/repairs_page.h"

#include <QHeaderView>
#include <QShowEvent>
#include <QStyledItemDelegate>
#include <QTimer>
#include <QVBoxLayout>
#include <map>
#include <utility>

#include "settings/localization.h"
#include "support/paths.h"
#include "ui/question_dialog.h"
#include "ui/ui_text.h"

namespace corvane::ui {
namespace {

enum Column { kRepairColumn, kDiskColumn, kFindingColumn, columnCount };

constexpr int kFindingRole = Qt::UserRole;

// Paths are long words: an invisible break opportunity after each separator lets a row wrap
// them instead of cutting them off.
QString breakablePaths(QString description) { return description.replace('/', QStringLiteral("/\u200B")); }

std::string describe(const DoctorFinding& finding) {
  return formatLocalizedText(localized(finding.key), finding.arguments);
}

// A tree view asks its delegate for a row's height without telling it the column's width, so
// wrapped text would be measured as one line and cut off; this delegate measures it in the width
// the column has.
class WrappingDelegate : public QStyledItemDelegate {
 public:
  explicit WrappingDelegate(QTreeView* view) : QStyledItemDelegate(view), view_(view) {}
  QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override {
    QStyleOptionViewItem sized(option);
    // The style measures wrapped text only within a valid rectangle: the column's width, any height.
    sized.rect = QRect(0, 0, view_->columnWidth(index.column()), 1 << 20);
    return QStyledItemDelegate::sizeHint(sized, index);
  }

 private:
  QTreeView* view_;
};

struct Examination {
  std::vector<DoctorFinding> findings;
  std::string error;
};

}  // namespace

RepairsPage::RepairsPage(UiServices& services)
    : Page(services),
      intro_(new QLabel(this)),
      examine_(new QPushButton(this)),
      repair_(new QPushButton(this)),
      table_(new QTreeWidget(this)),
      status_(new QLabel(this)) {
  auto* layout = new QVBoxLayout(this);
  auto* top = new QHBoxLayout;
  intro_->setWordWrap(true);
  top->addWidget(intro_, 1);
  top->addWidget(examine_);
  layout->addLayout(top);
  layout->addWidget(table_, 1);
  status_->setWordWrap(true);
  status_->setObjectName("repairs-status");
  layout->addWidget(status_);
  auto* actions = new QHBoxLayout;
  actions->addStretch(1);
  actions->addWidget(repair_);
  layout->addLayout(actions);

  examine_->setObjectName("examine-disks");
  repair_->setObjectName("repair-findings");
  table_->setObjectName("repairs-table");
  table_->setColumnCount(columnCount);
  table_->setRootIsDecorated(false);
  table_->setAlternatingRowColors(true);
  table_->setWordWrap(true);
  table_->setUniformRowHeights(false);
  table_->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
  table_->header()->setSectionResizeMode(kFindingColumn, QHeaderView::Stretch);
  table_->setItemDelegateForColumn(kFindingColumn, new WrappingDelegate(table_));
  // Heights follow the width: a wider column needs fewer lines.
  QObject::connect(table_->header(), &QHeaderView::sectionResized, table_, [this](int column) {
    if (column == kFindingColumn) QTimer::singleShot(0, table_, [table = table_] { table->doItemsLayout(); });
  });

  QObject::connect(examine_, &QPushButton::clicked, [this] { examine(); });
  QObject::connect(repair_, &QPushButton::clicked, [this] { repair(); });
  QObject::connect(table_, &QTreeWidget::itemChanged, [this](QTreeWidgetItem* item, int column) {
    if (rendering_ || column != kRepairColumn || !(item->flags() & Qt::ItemIsUserCheckable)) return;
    const auto index = static_cast<std::size_t>(item->data(kRepairColumn, kFindingRole).toULongLong());
    if (item->checkState(kRepairColumn) == Qt::Checked)
      unticked_.erase(index);
    else
      unticked_.insert(index);
    repair_->setEnabled(!tickedFindings().empty() && !repairing_ && !examining_);
  });
  disks_ = services_.disks.observe([this](DiskChange change) {
    if (change == DiskChange::externalDisks && isVisible() && !repairing_) examine();
  });
  migration_ = services_.migration.observe([this] {
    const bool migrating = services_.migration.isMigrating();
    if (wasMigrating_ && !migrating && !awaitingBatch_.empty()) batchFinished();
    wasMigrating_ = migrating;
  });
  retranslate();
}

void RepairsPage::retranslate() {
  intro_->setText(text("ui.repairs.intro"));
  examine_->setText(text("ui.repairs.examine"));
  repair_->setText(text("ui.repairs.repair"));
  table_->setHeaderLabels(
      {text("ui.repairs.column.repair"), text("ui.repairs.column.disk"), text("ui.repairs.column.finding")});
  render();
}

void RepairsPage::showEvent(QShowEvent* event) {
  Page::showEvent(event);
  // Examined when looked at, not at every start: reading the disks is left for when it is wanted.
  if (!examined_ && !examining_ && !repairing_) examine();
}

void RepairsPage::examine() {
  const auto disks = services_.disks.externalDisks();
  const DiskDoctor* doctor = &services_.doctor;
  const std::uint64_t generation = ++generation_;
  examining_ = true;
  render();
  services_.background.run<Examination>(
      lifetime(),
      [disks, doctor] {
        Examination examination;
        try {
          for (const auto& disk : disks) {
            auto found = doctor->examineDisk(disk);
            examination.findings.insert(examination.findings.end(), found.begin(), found.end());
          }
          auto absent = doctor->examineAbsentDisks();
          examination.findings.insert(examination.findings.end(), absent.begin(), absent.end());
        } catch (const std::exception& failure) {
          examination.error = failure.what();
        }
        return examination;
      },
      [this, generation](Examination examination) {
        if (generation != generation_) return;
        examining_ = false;
        examined_ = true;
        findings_ = std::move(examination.findings);
        examinationError_ = std::move(examination.error);
        unticked_.clear();
        render();
      });
}

void RepairsPage::render() {
  rendering_ = true;
  table_->clear();
  std::size_t fixable = 0;
  for (std::size_t i = 0; i < findings_.size(); ++i) {
    const auto& finding = findings_[i];
    auto* item = new QTreeWidgetItem(table_);
    item->setData(kRepairColumn, kFindingRole, static_cast<qulonglong>(i));
    if (finding.fixable) {
      ++fixable;
      item->setFlags(item->flags() | Qt::ItemIsUserCheckable);
      item->setCheckState(kRepairColumn, unticked_.count(i) ? Qt::Unchecked : Qt::Checked);
      item->setText(kRepairColumn, text("ui.repairs.automatic"));
    } else {
      item->setFlags(item->flags() & ~Qt::ItemIsUserCheckable);
      item->setText(kRepairColumn, text("ui.repairs.by_hand"));
    }
    item->setText(kDiskColumn, qstr(lastComponent(finding.disk)));
    item->setToolTip(kDiskColumn, qstr(finding.disk));
    const QString description = qstr(describe(finding));
    item->setText(kFindingColumn, breakablePaths(description));
    item->setToolTip(kFindingColumn, description);
    item->setData(kFindingColumn, RepairsPage::kDescriptionRole, description);
  }
  rendering_ = false;

  QString status;
  if (repairing_)
    status = awaitingBatch_.empty() ? text("ui.repairs.repairing") : text("ui.repairs.moving");
  else if (examining_)
    status = text("ui.repairs.examining");
  else if (!examinationError_.empty())
    status = textFormat("ui.repairs.failed", examinationError_);
  else if (examined_ && findings_.empty())
    status = text("cli.doctor.clean");
  else if (examined_)
    status = textFormat("ui.repairs.count", findings_.size(), fixable);
  if (!summary_.isEmpty()) status = summary_ + (status.isEmpty() ? "" : "\n" + status);
  status_->setText(status);
  examine_->setEnabled(!examining_ && !repairing_);
  repair_->setEnabled(!tickedFindings().empty() && !repairing_ && !examining_);
}

std::vector<DoctorFinding> RepairsPage::tickedFindings() const {
  std::vector<DoctorFinding> ticked;
  for (std::size_t i = 0; i < findings_.size(); ++i)
    if (findings_[i].fixable && !unticked_.count(i)) ticked.push_back(findings_[i]);
  return ticked;
}

void RepairsPage::repair() {
  auto ticked = tickedFindings();
  if (ticked.empty() || repairing_) return;
  QString list;
  for (const auto& finding : ticked) list += "\n• " + qstr(describe(finding));
  ask(this,
      {text("ui.page.repairs"),
       textFormat("ui.repairs.confirm", ticked.size()) + list,
       {text("ui.repairs.repair"), text("ui.cancel")}},
      [this, ticked = std::move(ticked)](int answer) mutable {
        if (answer == 0) runRepairs(std::move(ticked));
      });
}

void RepairsPage::runRepairs(std::vector<DoctorFinding> findings) {
  repairing_ = true;
  summary_.clear();
  results_.clear();
  std::vector<std::pair<std::string, DoctorFinding>> direct;
  std::vector<DoctorFinding> replaced;
  for (auto& finding : findings) {
    if (finding.kind == DoctorFinding::Kind::replacedLink)
      replaced.push_back(std::move(finding));
    else
      direct.emplace_back(describe(finding), std::move(finding));
  }
  render();
  const DiskDoctor* doctor = &services_.doctor;
  AppManager* apps = &services_.apps;
  const auto destination = services_.disks.destinationPath();
  services_.background.run<std::vector<Result>>(
      lifetime(),
      [direct = std::move(direct), doctor, apps, destination] {
        std::vector<Result> results;
        for (const auto& [description, finding] : direct) results.push_back({description, doctor->fix(finding)});
        // A settled transfer may have written or removed a record: the published list follows.
        if (!direct.empty()) apps->loadMigratedApps(destination);
        return results;
      },
      [this, replaced = std::move(replaced)](std::vector<Result> results) mutable {
        results_ = std::move(results);
        if (replaced.empty()) return finish();
        queuedReplaced_ = std::move(replaced);
        migrateNextDisk();
      });
}

void RepairsPage::migrateNextDisk() {
  // One batch runs at a time: the updated items of one disk, then those of the next.
  const std::string disk = queuedReplaced_.front().disk;
  std::vector<DoctorFinding> batch;
  std::vector<DoctorFinding> rest;
  for (auto& finding : queuedReplaced_) (finding.disk == disk ? batch : rest).push_back(std::move(finding));
  queuedReplaced_ = std::move(rest);
  std::vector<std::string> paths;
  for (const auto& finding : batch) paths.push_back(finding.path);
  services_.cancelRequested = false;
  if (services_.migration.isMigrating() || !services_.migration.migrateApps(paths, disk)) {
    for (const auto& finding : batch)
      results_.push_back({describe(finding), {false, localized("ui.repairs.busy"), {}}});
    if (queuedReplaced_.empty()) return finish();
    return migrateNextDisk();
  }
  awaitingBatch_ = std::move(batch);
  wasMigrating_ = services_.migration.isMigrating();
  render();
  if (!wasMigrating_) batchFinished();
}

void RepairsPage::batchFinished() {
  using Kind = MigrationManager::ItemOutcome::Kind;
  for (const auto& finding : awaitingBatch_) {
    Result result{describe(finding), {false, localized("ui.result.failed"), {}}};
    for (const auto& outcome : services_.migration.outcomes()) {
      if (outcome.source != finding.path) continue;
      result.repair.fixed = outcome.kind == Kind::succeeded && outcome.recordSaved;
      result.repair.error = result.repair.fixed ? "" : outcome.message;
    }
    results_.push_back(std::move(result));
  }
  awaitingBatch_.clear();
  if (!queuedReplaced_.empty()) return migrateNextDisk();
  finish();
}

void RepairsPage::finish() {
  repairing_ = false;
  std::size_t fixed = 0;
  QString details;
  bool worthTelling = false;
  for (const auto& result : results_) {
    fixed += result.repair.fixed ? 1 : 0;
    details += (details.isEmpty() ? "" : "\n") +
               (result.repair.fixed ? textFormat("cli.doctor.fixed", result.finding)
                                    : textFormat("cli.doctor.not_fixed", result.finding, result.repair.error));
    for (const auto& path : result.repair.leftInPlace) details += "\n  " + textFormat("recovery.left_in_place", path);
    worthTelling = worthTelling || !result.repair.fixed || !result.repair.leftInPlace.empty();
  }
  summary_ = textFormat("ui.repairs.summary", fixed, results_.size() - fixed);
  if (worthTelling) tell(this, text("ui.page.repairs"), details);
  services_.candidates.refresh();
  // Repairs can leave new findings behind (a folder chain emptied by a removal): look again.
  examine();
}

}  // namespace corvane::ui
