#include "ui/migrated_page.h"

#include <fcntl.h>

#include <QDateTime>
#include <QHeaderView>
#include <QVBoxLayout>

#include "catalogue/app_bundle_metadata.h"
#include "engine/manifest/migration_entry.h"
#include "engine/migration_item_inspector.h"
#include "settings/byte_format.h"
#include "support/diagnostic_log.h"
#include "ui/question_dialog.h"
#include "ui/ui_text.h"

namespace corvane::ui {
namespace {

enum Column { kNameColumn, kLinkColumn, kSizeColumn, kDateColumn, kVersionColumn, kOriginalColumn, columnCount };

constexpr int kRecordRole = Qt::UserRole;
constexpr int kBackupRole = Qt::UserRole + 1;

MigratedPage::Listing readListing(const std::string& disk) {
  MigratedPage::Listing listing;
  listing.disk = disk;
  auto [apps, rebuilt] = AppManager::loadRecordsTellingSource(disk);
  listing.rebuiltByScan = rebuilt;
  for (auto& app : apps) {
    MigratedPage::Row row;
    row.condition = conditionOf(app);
    row.version = AppBundleMetadata::version(app.targetPath);
    if (row.condition != LinkCondition::diskMissing) {
      try {
        row.sizeBytes = MigrationItemInspector::scanItem(app.targetPath).workload.bytes;
      } catch (const std::exception& error) {
        logDebug("measuring " + app.targetPath + ": " + error.what());
      }
    }
    for (const auto& backup : app.backupVersions)
      row.backupExists.push_back(static_cast<bool>(MigrationEntry::read(backup.backupPath, AT_FDCWD)));
    row.app = std::move(app);
    listing.rows.push_back(std::move(row));
  }
  return listing;
}

// The moment as people read it, the same in every language.
QString dateText(ReferenceDate date) {
  return QDateTime::fromSecsSinceEpoch(static_cast<qint64>(date.unixSeconds())).toString("yyyy-MM-dd HH:mm");
}

const char* resultKey(MigrationManager::OperationResult::Kind kind) {
  using Kind = MigrationManager::OperationResult::Kind;
  switch (kind) {
    case Kind::succeeded:
      return "ui.result.succeeded";
    case Kind::failed:
      return "ui.result.failed";
    case Kind::deferred:
      return "ui.result.deferred";
    case Kind::cancelled:
      return "ui.result.cancelled";
    case Kind::refused:
      return "ui.result.refused";
  }
  return "ui.result.failed";
}

}  // namespace

MigratedPage::MigratedPage(UiServices& services)
    : Page(services),
      intro_(new QLabel(this)),
      disk_(new QComboBox(this)),
      refresh_(new QPushButton(this)),
      table_(new QTreeWidget(this)),
      status_(new QLabel(this)),
      back_(new QPushButton(this)),
      restore_(new QPushButton(this)),
      uninstall_(new QPushButton(this)) {
  auto* layout = new QVBoxLayout(this);
  intro_->setWordWrap(true);
  layout->addWidget(intro_);
  auto* top = new QHBoxLayout;
  top->addWidget(disk_, 1);
  top->addWidget(refresh_);
  layout->addLayout(top);
  layout->addWidget(table_, 1);
  status_->setWordWrap(true);
  layout->addWidget(status_);
  auto* actions = new QHBoxLayout;
  actions->addStretch(1);
  actions->addWidget(back_);
  actions->addWidget(restore_);
  actions->addWidget(uninstall_);
  layout->addLayout(actions);

  disk_->setObjectName("migrated-disk");
  table_->setObjectName("migrated-table");
  table_->setColumnCount(columnCount);
  table_->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
  table_->header()->setStretchLastSection(true);
  refresh_->setObjectName("refresh-migrated");
  back_->setObjectName("move-back");
  restore_->setObjectName("restore-version");
  uninstall_->setObjectName("uninstall");

  QObject::connect(disk_, &QComboBox::currentIndexChanged, [this](int) { reload(); });
  QObject::connect(refresh_, &QPushButton::clicked, [this] { reload(); });
  QObject::connect(table_, &QTreeWidget::itemSelectionChanged, [this] {
    int backup = -1;
    const Row* row = selectedRow(&backup);
    const bool idle = !services_.migration.isMigrating();
    back_->setEnabled(row && backup < 0 && idle);
    uninstall_->setEnabled(row && backup < 0 && idle);
    restore_->setEnabled(row && backup >= 0 && row->backupExists[static_cast<std::size_t>(backup)] && idle);
  });
  QObject::connect(back_, &QPushButton::clicked, [this] { moveBack(); });
  QObject::connect(restore_, &QPushButton::clicked, [this] { restore(); });
  QObject::connect(uninstall_, &QPushButton::clicked, [this] { uninstall(); });
  disks_ = services_.disks.observe([this](DiskChange change) {
    if (change == DiskChange::externalDisks || change == DiskChange::destination) render();
  });
  records_ = services_.apps.observe([this] { reload(); });
  migration_ = services_.migration.observe([this] {
    const bool busy = services_.migration.isMigrating();
    if (wasBusy_ && !busy) reload();
    wasBusy_ = busy;
  });
  retranslate();
}

void MigratedPage::retranslate() {
  intro_->setText(text("ui.migrated.intro"));
  refresh_->setText(text("ui.refresh"));
  back_->setText(text("ui.migrated.move_back"));
  restore_->setText(text("ui.migrated.restore"));
  uninstall_->setText(text("ui.migrated.uninstall"));
  table_->setHeaderLabels({text("ui.migrated.column.name"), text("ui.migrated.column.link"),
                           text("ui.migrated.column.size"), text("ui.migrated.column.date"),
                           text("ui.migrated.column.version"), text("ui.migrated.column.original")});
  render();
}

std::optional<std::string> MigratedPage::chosenDisk() const {
  if (disk_->currentIndex() < 0) return std::nullopt;
  return disk_->currentData().toString().toStdString();
}

void MigratedPage::reload() {
  const auto disk = chosenDisk();
  if (!disk) {
    listing_ = {};
    return render();
  }
  const std::uint64_t generation = ++generation_;
  loading_ = true;
  services_.background.run<Listing>(
      lifetime(), [disk = *disk] { return readListing(disk); },
      [this, generation](Listing listing) {
        if (generation != generation_) return;
        loading_ = false;
        listing_ = std::move(listing);
        render();
      });
  render();
}

void MigratedPage::render() {
  // The disk list follows the disk manager; the choice stays where it was when it can.
  const auto& disks = services_.disks.externalDisks();
  const auto previous = chosenDisk();
  QStringList shown;
  for (int i = 0; i < disk_->count(); ++i) shown << disk_->itemData(i).toString();
  QStringList wanted;
  for (const auto& disk : disks) wanted << qstr(disk);
  if (shown != wanted) {
    disk_->blockSignals(true);
    disk_->clear();
    for (const auto& disk : disks) disk_->addItem(qstr(disk), qstr(disk));
    const auto keep = previous ? previous : services_.disks.destinationPath();
    const int index = keep ? disk_->findData(qstr(*keep)) : -1;
    disk_->setCurrentIndex(index >= 0 ? index : (disk_->count() > 0 ? 0 : -1));
    disk_->blockSignals(false);
    if (chosenDisk() != listing_.disk || !chosenDisk()) return reload();
  }

  table_->clear();
  for (std::size_t i = 0; i < listing_.rows.size(); ++i) {
    const auto& row = listing_.rows[i];
    auto* item = new QTreeWidgetItem(table_);
    item->setData(kNameColumn, kRecordRole, static_cast<int>(i));
    item->setData(kNameColumn, kBackupRole, -1);
    item->setText(kNameColumn, qstr(row.app.appName));
    item->setText(kLinkColumn, text(std::string("ui.link.") + conditionName(row.condition)));
    item->setText(kSizeColumn, row.sizeBytes ? qstr(formatByteCount(*row.sizeBytes)) : text("ui.unknown"));
    item->setText(kDateColumn, dateText(row.app.migratedDate));
    item->setText(kVersionColumn, qstr(row.version.value_or("")));
    item->setText(kOriginalColumn, qstr(row.app.originalPath));
    item->setToolTip(kOriginalColumn, textFormat("ui.migrated.target", row.app.targetPath));
    for (std::size_t b = 0; b < row.app.backupVersions.size(); ++b) {
      const auto& backup = row.app.backupVersions[b];
      auto* child = new QTreeWidgetItem(item);
      child->setData(kNameColumn, kRecordRole, static_cast<int>(i));
      child->setData(kNameColumn, kBackupRole, static_cast<int>(b));
      child->setText(kNameColumn, text("ui.migrated.backup_version"));
      child->setText(kLinkColumn,
                     row.backupExists[b] ? text("ui.migrated.backup_present") : text("ui.migrated.backup_missing"));
      child->setText(kDateColumn, dateText(backup.backupDate));
      child->setText(kOriginalColumn, qstr(backup.backupPath));
      child->setToolTip(kOriginalColumn, qstr(backup.backupPath));
    }
    item->setExpanded(true);
  }
  if (loading_)
    status_->setText(text("ui.migrated.loading"));
  else if (!chosenDisk())
    status_->setText(text("ui.disks.none"));
  else if (listing_.rows.empty())
    status_->setText(textFormat("ui.migrated.empty", listing_.disk));
  else if (listing_.rebuiltByScan)
    status_->setText(text("ui.migrated.rebuilt"));
  else
    status_->setText(textFormat("ui.migrated.count", listing_.rows.size(), listing_.disk));
  back_->setEnabled(false);
  restore_->setEnabled(false);
  uninstall_->setEnabled(false);
}

const MigratedPage::Row* MigratedPage::selectedRow(int* backupIndex) const {
  const auto selected = table_->selectedItems();
  if (selected.isEmpty()) return nullptr;
  const int record = selected.front()->data(kNameColumn, kRecordRole).toInt();
  *backupIndex = selected.front()->data(kNameColumn, kBackupRole).toInt();
  if (record < 0 || static_cast<std::size_t>(record) >= listing_.rows.size()) return nullptr;
  return &listing_.rows[static_cast<std::size_t>(record)];
}

void MigratedPage::moveBack() {
  int backup = -1;
  const Row* row = selectedRow(&backup);
  if (!row) return;
  const MigratedApp app = row->app;
  const std::string disk = listing_.disk;
  ask(this,
      {text("ui.migrated.move_back"),
       textFormat("ui.migrated.back_confirm", app.appName, app.targetPath, app.originalPath),
       {text("ui.migrated.move_back"), text("ui.cancel")}},
      [this, app, disk](int answer) {
        if (answer != 0) return;
        status_->setText(text("progress.migrating_back"));
        if (!services_.migration.migrateBackToMainDisk(app, disk, [this, alive = lifetime()](const auto& result) {
              if (alive.lock()) finished(result);
            }))
          refused();
      });
}

void MigratedPage::restore() {
  int backup = -1;
  const Row* row = selectedRow(&backup);
  if (!row || backup < 0) return;
  const MigratedApp app = row->app;
  const BackupRecord version = app.backupVersions[static_cast<std::size_t>(backup)];
  const std::string disk = listing_.disk;
  ask(this,
      {text("ui.migrated.restore"),
       textFormat("ui.migrated.restore_confirm", app.appName, dateText(version.backupDate).toStdString(),
                  app.targetPath),
       {text("ui.migrated.restore"), text("ui.cancel")}},
      [this, app, version, disk](int answer) {
        if (answer != 0) return;
        status_->setText(text("progress.restoring"));
        if (!services_.migration.restoreFromBackup(version, app, disk, [this, alive = lifetime()](const auto& result) {
              if (alive.lock()) finished(result);
            }))
          refused();
      });
}

void MigratedPage::uninstall() {
  int backup = -1;
  const Row* row = selectedRow(&backup);
  if (!row) return;
  const MigratedApp app = row->app;
  Question question{text("ui.migrated.uninstall"),
                    textFormat("ui.migrated.uninstall_confirm", app.appName, app.originalPath, app.targetPath,
                               app.supportFiles.size()),
                    {text("ui.migrated.uninstall"), text("ui.cancel")}};
  const auto run = [this, app](int answer, bool withVersions) {
    if (answer != 0) return;
    const auto versions =
        withVersions ? MigrationManager::RetainedVersions::remove : MigrationManager::RetainedVersions::keep;
    if (!services_.migration.uninstallApp(
            app, services_.disks.externalDisks(),
            [this, alive = lifetime()](const auto& result) {
              if (alive.lock()) finished(result);
            },
            versions))
      refused();
  };
  // The retained versions go only when asked for, and the question names each one.
  const auto versions = MigrationManager::retainedVersionsOf(app);
  if (versions.empty()) return ask(this, question, [run](int answer) { run(answer, false); });
  question.message += "\n\n" + text("ui.migrated.retained_versions");
  for (const auto& version : versions) question.message += "\n" + qstr(version);
  askWithOption(this, question, text("cli.uninstall.with_versions"), run);
}

void MigratedPage::finished(const MigrationManager::OperationResult& result) {
  QString message = text(resultKey(result.kind));
  if (!result.message.empty()) message += ": " + qstr(result.message);
  if (!result.recordSaved) message += "\n" + text("ui.outcome.record_not_saved");
  if (result.cleanupPath) message += "\n" + textFormat("ui.result.left_behind", *result.cleanupPath);
  status_->setText(message);
  if (result.kind != MigrationManager::OperationResult::Kind::succeeded || !result.recordSaved)
    tell(this, text("ui.failed"), message);
  reload();
  services_.candidates.refresh();
}

void MigratedPage::refused() {
  status_->setText(text("ui.result.refused"));
  tell(this, text("ui.failed"), text("ui.migrated.refused"));
}

}  // namespace corvane::ui
