#include "ui/items_page.h"

#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QHeaderView>
#include <QMimeData>
#include <QSplitter>
#include <QVBoxLayout>

#include "engine/migration_item_inspector.h"
#include "engine/running_program_closer.h"
#include "platform/item_processes.h"
#include "settings/byte_format.h"
#include "support/paths.h"
#include "ui/question_dialog.h"
#include "ui/ui_text.h"

namespace corvane::ui {
namespace {

enum Column { kNameColumn, kSizeColumn, kStateColumn, kPathColumn, columnCount };

constexpr int kPathRole = Qt::UserRole;

// The programs running inside each item, read when the user asks to migrate.
struct RunningItem {
  std::string path;
  std::vector<pid_t> pids;
};

}  // namespace

ItemsPage::ItemsPage(UiServices& services)
    : Page(services),
      intro_(new QLabel(this)),
      destination_(new QLabel(this)),
      add_(new QPushButton(this)),
      refresh_(new QPushButton(this)),
      table_(new QTreeWidget(this)),
      measuring_(new QLabel(this)),
      check_(new QPushButton(this)),
      migrate_(new QPushButton(this)),
      progress_(new ProgressPanel(services)) {
  setAcceptDrops(true);
  intro_->setWordWrap(true);
  destination_->setWordWrap(true);
  auto* top = new QHBoxLayout;
  top->addWidget(destination_, 1);
  top->addWidget(add_);
  top->addWidget(refresh_);
  auto* upper = new QWidget(this);
  auto* upperLayout = new QVBoxLayout(upper);
  upperLayout->setContentsMargins(0, 0, 0, 0);
  upperLayout->addWidget(intro_);
  upperLayout->addLayout(top);
  upperLayout->addWidget(table_);
  auto* bottom = new QHBoxLayout;
  bottom->addWidget(measuring_, 1);
  bottom->addWidget(check_);
  bottom->addWidget(migrate_);
  upperLayout->addLayout(bottom);
  auto* splitter = new QSplitter(Qt::Vertical, this);
  splitter->addWidget(upper);
  splitter->addWidget(progress_);
  splitter->setStretchFactor(0, 3);
  splitter->setStretchFactor(1, 2);
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(splitter);

  table_->setObjectName("items-table");
  table_->setRootIsDecorated(false);
  table_->setColumnCount(columnCount);
  table_->header()->setSectionResizeMode(kNameColumn, QHeaderView::ResizeToContents);
  table_->header()->setStretchLastSection(true);
  add_->setObjectName("add-folder");
  refresh_->setObjectName("refresh-items");
  check_->setObjectName("check");
  migrate_->setObjectName("migrate");

  QObject::connect(table_, &QTreeWidget::itemChanged, [this](QTreeWidgetItem* row, int column) {
    if (rendering_ || column != kNameColumn) return;
    const std::string item = row->data(kNameColumn, kPathRole).toString().toStdString();
    if (row->checkState(kNameColumn) == Qt::Checked)
      checked_.insert(item);
    else
      checked_.erase(item);
    render();
  });
  QObject::connect(add_, &QPushButton::clicked, [this] {
    auto* chooser = new QFileDialog(this, text("ui.items.choose_folder"));
    chooser->setAttribute(Qt::WA_DeleteOnClose);
    chooser->setFileMode(QFileDialog::Directory);
    chooser->setOption(QFileDialog::ShowDirsOnly);
    QObject::connect(chooser, &QFileDialog::fileSelected, this, [this](const QString& path) { addFolder(path); });
    chooser->open();
  });
  QObject::connect(refresh_, &QPushButton::clicked, [this] { services_.candidates.refresh(); });
  QObject::connect(check_, &QPushButton::clicked, [this] { check(); });
  QObject::connect(migrate_, &QPushButton::clicked, [this] { migrate(); });
  candidates_ = services_.candidates.observe([this] { render(); });
  disks_ = services_.disks.observe([this](DiskChange change) {
    if (change == DiskChange::destination || change == DiskChange::externalDisks) render();
  });
  migration_ = services_.migration.observe([this] {
    // Moved items are links now and leave the list; a refresh also measures what is left.
    if (wasMigrating_ && !services_.migration.isMigrating()) services_.candidates.refresh();
    wasMigrating_ = services_.migration.isMigrating();
    render();
  });
  retranslate();
}

void ItemsPage::retranslate() {
  intro_->setText(text("ui.items.intro"));
  add_->setText(text("ui.items.add_folder"));
  refresh_->setText(text("ui.refresh"));
  check_->setText(text("ui.items.check"));
  migrate_->setText(text("ui.items.migrate"));
  table_->setHeaderLabels({text("ui.items.column.name"), text("ui.items.column.size"), text("ui.items.column.state"),
                           text("ui.items.column.path")});
  progress_->retranslate();
  render();
}

void ItemsPage::addFolder(const QString& path) {
  const std::string folder = absolutePath(path.toStdString());
  if (services_.candidates.addFolder(folder)) checked_.insert(folder);
}

void ItemsPage::dragEnterEvent(QDragEnterEvent* event) {
  if (event->mimeData()->hasUrls()) event->acceptProposedAction();
}

void ItemsPage::dropEvent(QDropEvent* event) {
  for (const QUrl& url : event->mimeData()->urls())
    if (url.isLocalFile()) addFolder(url.toLocalFile());
  event->acceptProposedAction();
}

void ItemsPage::render() {
  const auto& destination = services_.disks.destinationPath();
  destination_->setText(destination ? textFormat("ui.items.destination", *destination)
                                    : text("ui.items.no_destination"));
  rendering_ = true;
  const auto& candidates = services_.candidates.candidates();
  while (table_->topLevelItemCount() > static_cast<int>(candidates.size())) delete table_->takeTopLevelItem(0);
  for (std::size_t i = 0; i < candidates.size(); ++i) {
    const auto& candidate = candidates[i];
    QTreeWidgetItem* row = table_->topLevelItem(static_cast<int>(i));
    if (!row) row = new QTreeWidgetItem(table_);
    row->setFlags(row->flags() | Qt::ItemIsUserCheckable);
    row->setData(kNameColumn, kPathRole, qstr(candidate.path));
    row->setCheckState(kNameColumn, checked_.count(candidate.path) ? Qt::Checked : Qt::Unchecked);
    row->setText(kNameColumn, qstr(candidate.name));
    row->setText(kSizeColumn, candidate.sizeBytes  ? qstr(formatByteCount(*candidate.sizeBytes))
                              : candidate.measured ? text("ui.items.size_unknown")
                                                   : text("ui.items.measuring"));
    row->setTextAlignment(kSizeColumn, Qt::AlignRight | Qt::AlignVCenter);
    row->setText(kStateColumn, candidate.running         ? text("ui.items.running")
                               : candidate.isApplication ? text("ui.items.kind.app")
                                                         : text("ui.items.kind.folder"));
    row->setText(kPathColumn, qstr(candidate.path));
    row->setToolTip(kPathColumn, qstr(candidate.path));
  }
  rendering_ = false;
  measuring_->setText(services_.candidates.isMeasuring() ? text("ui.items.measuring_all")
                      : candidates.empty()               ? text("ui.items.empty")
                                                         : QString());
  migrate_->setEnabled(!checkedPaths().empty() && !services_.migration.isMigrating());
  check_->setEnabled(!checkedPaths().empty());
}

void ItemsPage::check() {
  const auto paths = checkedPaths();
  check_->setEnabled(false);
  services_.background.run<QString>(
      lifetime(),
      [paths] {
        QString report;
        for (const auto& readiness : MigrationItemInspector().checkItems(paths)) {
          const std::string name = lastComponent(readiness.path);
          QString line;
          switch (readiness.verdict) {
            case MigrationItemInspector::Readiness::Verdict::movable: {
              const auto workload = MigrationItemInspector::scanItem(readiness.path).workload;
              line = textFormat("ui.check.movable", name, workload.entries, formatByteCount(workload.bytes));
              break;
            }
            case MigrationItemInspector::Readiness::Verdict::blocked:
              line = textFormat("ui.check.blocked", name);
              for (const auto& message : readiness.blockingMessages) line += "\n  " + qstr(message);
              break;
            case MigrationItemInspector::Readiness::Verdict::notFound:
              line = textFormat("ui.check.not_found", name);
              break;
            case MigrationItemInspector::Readiness::Verdict::symbolicLink:
              line = textFormat("ui.check.link", name);
              break;
          }
          report += (report.isEmpty() ? "" : "\n\n") + line;
        }
        return report;
      },
      [this](QString report) {
        render();
        tell(this, text("ui.check.title"), report);
      });
}

std::vector<std::string> ItemsPage::checkedPaths() const {
  std::vector<std::string> paths;
  for (const auto& candidate : services_.candidates.candidates())
    if (checked_.count(candidate.path)) paths.push_back(candidate.path);
  return paths;
}

void ItemsPage::migrate() {
  const auto paths = checkedPaths();
  if (paths.empty() || services_.migration.isMigrating()) return;
  passProtectionGate([this, paths] { closeRunningThenStart(paths); });
}

void ItemsPage::passProtectionGate(std::function<void()> start) {
  auto& disks = services_.disks;
  switch (disks.protectionGate()) {
    case ProtectionGate::noDestination:
      tell(this, text("ui.items.no_destination_title"), text("ui.items.no_destination"));
      return;
    case ProtectionGate::start:
      return start();
    case ProtectionGate::suggest:
      break;
  }
  ask(this,
      {text("disk.protection.suggestion.title"),
       text("disk.protection.suggestion.message"),
       {text("disk.protection.suggestion.enable"), text("disk.protection.suggestion.skip")}},
      [this, start](int answer) {
        if (answer == 0) {
          services_.disks.enableDiskProtection([start](bool, std::optional<std::string>) { start(); });
          return;
        }
        services_.disks.skipProtectionForSession();
        start();
      });
}

void ItemsPage::closeRunningThenStart(const std::vector<std::string>& paths) {
  migrate_->setEnabled(false);
  services_.background.run<std::vector<RunningItem>>(
      lifetime(),
      [paths] {
        std::vector<RunningItem> running;
        for (const auto& item : paths) {
          RunningItem found{item, {}};
          for (const auto& process : platform::processesExecutingWithin(item)) found.pids.push_back(process.pid);
          if (!found.pids.empty()) running.push_back(std::move(found));
        }
        return running;
      },
      [this, paths](std::vector<RunningItem> running) {
        if (running.empty()) return start(paths);
        QString list;
        for (const auto& item : running) {
          QStringList pids;
          for (pid_t pid : item.pids) pids << QString::number(pid);
          list += "\n" + textFormat("ui.running.item", lastComponent(item.path), pids.join(", ").toStdString());
        }
        ask(this,
            {text("ui.running.title"),
             text("ui.running.batch_message") + "\n" + list,
             {text("ui.running.quit"), text("ui.cancel")}},
            [this, paths, running](int answer) {
              if (answer != 0) return render();
              services_.background.run<bool>(
                  lifetime(),
                  [running] {
                    bool closed = true;
                    for (const auto& item : running) closed = closeRunningPrograms(item.path, item.pids) && closed;
                    return closed;
                  },
                  [this, paths](bool closed) {
                    if (!closed) tell(this, text("ui.running.title"), text("ui.running.still_running"));
                    // Items still running are asked about again by the batch, and skipped if
                    // they still run.
                    start(paths);
                  });
            });
      });
}

void ItemsPage::start(const std::vector<std::string>& paths) {
  const auto& destination = services_.disks.destinationPath();
  if (!destination) return render();
  services_.cancelRequested = false;
  services_.migration.migrateApps(paths, *destination);
  render();
}

}  // namespace corvane::ui
