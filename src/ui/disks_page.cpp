#include "ui/disks_page.h"

#include <QClipboard>
#include <QFileDialog>
#include <QGroupBox>
#include <QGuiApplication>
#include <QHeaderView>
#include <QScrollArea>

#include "settings/byte_format.h"
#include "support/paths.h"
#include "ui/question_dialog.h"
#include "ui/ui_text.h"

namespace corvane::ui {
namespace {

enum Column {
  kNameColumn,
  kPathColumn,
  kFreeColumn,
  kFileSystemColumn,
  kProtectionColumn,
  kDestinationColumn,
  columnCount
};

constexpr int kPathRole = Qt::UserRole;

QString contentsText(const GhostDirectoryContents& contents) {
  std::string names;
  for (const auto& entry : contents.firstNames) names += (names.empty() ? "" : ", ") + entry;
  return textFormat("ui.disks.ghost_contents", contents.entryCount, formatByteCount(contents.totalBytes), names);
}

// A framed notice with a text and its actions.
QGroupBox* notice(QWidget* parent, const QString& title, const QString& message, const QString& objectName) {
  auto* box = new QGroupBox(title, parent);
  box->setObjectName(objectName);
  auto* layout = new QVBoxLayout(box);
  auto* label = new QLabel(message, box);
  label->setWordWrap(true);
  label->setTextInteractionFlags(Qt::TextSelectableByMouse);
  layout->addWidget(label);
  return box;
}

QPushButton* action(QGroupBox* box, const QString& label, const QString& objectName) {
  auto* button = new QPushButton(label, box);
  button->setObjectName(objectName);
  auto* row = new QHBoxLayout;
  row->addStretch(1);
  row->addWidget(button);
  static_cast<QVBoxLayout*>(box->layout())->addLayout(row);
  return button;
}

}  // namespace

DisksPage::DisksPage(UiServices& services)
    : Page(services),
      intro_(new QLabel(this)),
      refresh_(new QPushButton(this)),
      accessBanner_(new QWidget(this)),
      accessText_(new QLabel(accessBanner_)),
      grant_(new QPushButton(accessBanner_)),
      table_(new QTreeWidget(this)),
      choose_(new QPushButton(this)),
      protect_(new QPushButton(this)),
      manual_(new QPushButton(this)),
      protection_(new QLabel(this)),
      alerts_(new QWidget(this)),
      alertsLayout_(new QVBoxLayout(alerts_)) {
  auto* layout = new QVBoxLayout(this);
  auto* top = new QHBoxLayout;
  intro_->setWordWrap(true);
  top->addWidget(intro_, 1);
  top->addWidget(refresh_);
  layout->addLayout(top);
  auto* banner = new QHBoxLayout(accessBanner_);
  accessText_->setWordWrap(true);
  banner->addWidget(accessText_, 1);
  banner->addWidget(grant_);
  layout->addWidget(accessBanner_);
  layout->addWidget(table_, 2);
  auto* actions = new QHBoxLayout;
  actions->addWidget(choose_);
  actions->addWidget(protect_);
  actions->addWidget(manual_);
  actions->addStretch(1);
  layout->addLayout(actions);
  protection_->setWordWrap(true);
  layout->addWidget(protection_);
  alertsLayout_->setContentsMargins(0, 0, 0, 0);
  auto* scroll = new QScrollArea(this);
  scroll->setWidgetResizable(true);
  scroll->setFrameShape(QFrame::NoFrame);
  scroll->setWidget(alerts_);
  layout->addWidget(scroll, 3);

  table_->setObjectName("disks-table");
  table_->setRootIsDecorated(false);
  table_->setColumnCount(columnCount);
  table_->header()->setStretchLastSection(false);
  table_->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
  table_->header()->setSectionResizeMode(kPathColumn, QHeaderView::Stretch);
  refresh_->setObjectName("refresh-disks");
  choose_->setObjectName("use-as-destination");
  protect_->setObjectName("protect");
  manual_->setObjectName("protect-manually");

  QObject::connect(refresh_, &QPushButton::clicked, [this] {
    services_.disks.detectExternalDisks();
    services_.disks.checkForDriftedDisks();
    requestFacts();
  });
  QObject::connect(table_, &QTreeWidget::itemSelectionChanged, [this] { render(); });
  QObject::connect(choose_, &QPushButton::clicked, [this] {
    if (auto disk = selectedDisk()) services_.disks.setDestinationPath(*disk);
  });
  QObject::connect(protect_, &QPushButton::clicked, [this] { protect(); });
  QObject::connect(manual_, &QPushButton::clicked, [this] { protectManually(); });
  QObject::connect(grant_, &QPushButton::clicked, [this] {
    const auto& problem = services_.disks.accessProblem();
    if (!problem) return;
    auto* chooser = new QFileDialog(this, text("disk_authorization.title"), qstr(problem->destination));
    chooser->setAttribute(Qt::WA_DeleteOnClose);
    chooser->setFileMode(QFileDialog::Directory);
    chooser->setOption(QFileDialog::ShowDirsOnly);
    chooser->setLabelText(QFileDialog::Accept, text("disk_authorization.prompt"));
    QObject::connect(chooser, &QFileDialog::fileSelected, this,
                     [this](const QString& folder) { services_.disks.grantDiskAccess(folder.toStdString()); });
    QObject::connect(chooser, &QFileDialog::rejected, this, [this] { services_.disks.grantDiskAccess(std::nullopt); });
    chooser->open();
  });
  disks_ = services_.disks.observe([this](DiskChange change) {
    if (change == DiskChange::polling || change == DiskChange::access || change == DiskChange::suggestion)
      render();
    else
      requestFacts();
  });
  retranslate();
  requestFacts();
}

void DisksPage::retranslate() {
  intro_->setText(text("ui.disks.intro"));
  refresh_->setText(text("ui.refresh"));
  grant_->setText(text("disk_authorization.prompt"));
  choose_->setText(text("ui.disks.use_as_destination"));
  protect_->setText(text("ui.disks.protect"));
  manual_->setText(text("ui.disks.protect_manually"));
  table_->setHeaderLabels({text("ui.disks.column.name"), text("ui.disks.column.path"), text("ui.disks.column.free"),
                           text("ui.disks.column.file_system"), text("ui.disks.column.protection"),
                           text("ui.disks.column.destination")});
  render();
}

void DisksPage::requestFacts() {
  const std::uint64_t generation = ++generation_;
  auto request = DiskFactsRequest::from(services_.disks);
  auto& fstab = services_.disks.fstab();
  services_.background.run<std::vector<DiskReport>>(
      lifetime(), [request, &fstab] { return describeDisks(request, fstab); },
      [this, generation](std::vector<DiskReport> reports) {
        if (generation != generation_) return;
        reports_ = std::move(reports);
        render();
      });
}

std::optional<std::string> DisksPage::selectedDisk() const {
  const auto selected = table_->selectedItems();
  if (selected.isEmpty()) return std::nullopt;
  return selected.front()->data(kNameColumn, kPathRole).toString().toStdString();
}

void DisksPage::render() {
  auto& disks = services_.disks;
  const auto& problem = disks.accessProblem();
  accessBanner_->setVisible(problem.has_value());
  if (problem)
    accessText_->setText(text("disk_authorization.title") + "\n" +
                         textFormat("disk_authorization.unix_hint", problem->destination, problem->failure));

  const auto selection = selectedDisk();
  table_->blockSignals(true);
  table_->clear();
  for (const auto& report : reports_) {
    auto* row = new QTreeWidgetItem(table_);
    row->setData(kNameColumn, kPathRole, qstr(report.path));
    row->setText(kNameColumn, qstr(report.label.value_or(lastComponent(report.path))));
    row->setText(kPathColumn, qstr(report.path));
    row->setText(kFreeColumn, report.freeBytes ? qstr(formatByteCount(*report.freeBytes)) : text("ui.unknown"));
    row->setText(kFileSystemColumn, qstr(report.fileSystem.value_or("")));
    row->setText(kProtectionColumn, report.isProtected ? text("ui.disks.protected") : text("ui.disks.not_protected"));
    row->setText(kDestinationColumn,
                 disks.destinationPath() == report.path ? text("ui.disks.is_destination") : QString());
    if (selection == report.path) row->setSelected(true);
  }
  table_->blockSignals(false);

  const auto chosen = selectedDisk();
  choose_->setEnabled(chosen && disks.destinationPath() != chosen);
  const bool hasDestination = disks.destinationPath().has_value();
  protect_->setEnabled(hasDestination && !disks.isCurrentDiskProtected());
  manual_->setEnabled(hasDestination && !disks.isCurrentDiskProtected());
  if (!hasDestination)
    protection_->setText(reports_.empty() ? text("ui.disks.none") : text("ui.disks.no_destination"));
  else if (disks.isPolling())
    protection_->setText(textFormat("ui.disks.polling", *disks.destinationPath()));
  else
    protection_->setText(textFormat(
        disks.isCurrentDiskProtected() ? "ui.disks.destination_protected" : "ui.disks.destination_unprotected",
        *disks.destinationPath()));
  renderAlerts();
}

void DisksPage::renderAlerts() {
  while (auto* child = alertsLayout_->takeAt(0)) {
    delete child->widget();
    delete child;
  }
  auto& disks = services_.disks;
  for (const auto& ghost : disks.ghostPaths()) {
    std::optional<GhostDirectoryContents> contents;
    for (const auto& report : reports_)
      if (report.expectedPath == ghost && report.ghost) contents = report.ghost;
    QString message = textFormat("ghost_files.message", ghost);
    if (contents) message += "\n" + contentsText(*contents);
    auto* box = notice(alerts_, text("ghost_files.title"), message, "ghost-alert");
    QObject::connect(action(box, text("ghost_files.action"), "repair-ghost"), &QPushButton::clicked,
                     [this, ghost, contents] { repairGhost(ghost, contents); });
    alertsLayout_->addWidget(box);
  }
  for (const auto& rename : disks.renamedDisks()) {
    auto* box = notice(alerts_, text("disk_rename.title"),
                       textFormat("disk_rename.message", rename.currentPath, rename.expectedPath), "rename-notice");
    QObject::connect(action(box, text("ui.disks.remount"), "remount"), &QPushButton::clicked,
                     [this, rename] { remount(rename.currentPath, rename.expectedPath); });
    alertsLayout_->addWidget(box);
  }
  for (const auto& report : reports_) {
    if (report.driftedLinks.empty()) continue;
    QString message = textFormat("ui.disks.drifted_links", report.driftedLinks.size(), report.path,
                                 report.driftedLinks.front().recordedVolume);
    for (const auto& link : report.driftedLinks)
      message += "\n" + textFormat("ui.disks.drifted_link", link.originalPath, link.currentTarget);
    auto* box = notice(alerts_, text("ui.disks.drifted_title"), message, "drift-notice");
    const std::string disk = report.path;
    QObject::connect(action(box, text("ui.disks.relink"), "relink"), &QPushButton::clicked,
                     [this, disk] { relink(disk); });
    alertsLayout_->addWidget(box);
  }
  alertsLayout_->addStretch(1);
}

void DisksPage::protect() {
  protect_->setEnabled(false);
  services_.disks.enableDiskProtection([this, alive = lifetime()](bool success, std::optional<std::string> message) {
    if (!alive.lock()) return;
    if (!success) showResult(false, message);
    render();
  });
}

void DisksPage::protectManually() {
  const auto command = services_.disks.getManualProtectionCommand();
  ask(this,
      {text("disk.protection.manual.title"),
       textFormat("disk.protection.manual.message", command.value_or("Error")),
       {text("disk.protection.manual.auto_run"), text("disk.protection.manual.copy_run"), text("ui.cancel")}},
      [this, command](int answer) {
        if (!command || answer == 2) return;
        if (answer == 0) {
          auto& fstab = services_.disks.fstab();
          services_.background.run<bool>(
              lifetime(),
              [&fstab, command] {
                fstab.openTerminalAndRun(*command);
                return true;
              },
              [](bool) {});
        } else {
          QGuiApplication::clipboard()->setText(qstr(*command));
        }
        services_.disks.startProtectionPolling();
      });
}

void DisksPage::repairGhost(const std::string& ghost, std::optional<GhostDirectoryContents> contents) {
  QString message = textFormat("ui.disks.repair_confirm", ghost);
  if (contents) message += "\n" + contentsText(*contents);
  ask(this, {text("ghost_files.title"), message, {text("ghost_files.action"), text("ui.cancel")}},
      [this, ghost, contents](int answer) {
        if (answer != 0) return;
        services_.disks.fixGhostDirectory(
            ghost,
            [this, alive = lifetime()](bool success, std::optional<std::string> result) {
              if (alive.lock()) showResult(success, result);
            },
            contents);
      });
}

void DisksPage::remount(const std::string& disk, const std::string& expected) {
  ask(this,
      {text("disk_rename.title"),
       textFormat("ui.disks.remount_confirm", disk, expected),
       {text("ui.disks.remount"), text("ui.cancel")}},
      [this, disk, expected](int answer) {
        if (answer != 0) return;
        services_.disks.remountDriftedDisk(disk, expected,
                                           [this, alive = lifetime()](bool success, std::optional<std::string> result) {
                                             if (alive.lock()) showResult(success, result);
                                           });
      });
}

void DisksPage::relink(const std::string& disk) {
  ask(this,
      {text("ui.disks.drifted_title"),
       textFormat("ui.disks.relink_confirm", disk),
       {text("ui.disks.relink"), text("ui.cancel")}},
      [this, disk](int answer) {
        if (answer != 0) return;
        const auto roots = services_.disks.volumesRoots();
        services_.background.run<std::vector<RelinkOutcome>>(
            lifetime(), [disk, roots] { return relinkDriftedLinks(disk, roots); },
            [this](std::vector<RelinkOutcome> outcomes) {
              QString message;
              bool allRelinked = true;
              for (const auto& outcome : outcomes) {
                allRelinked = allRelinked && outcome.relinked;
                message += (message.isEmpty() ? "" : "\n") +
                           (outcome.relinked
                                ? textFormat("ui.disks.relinked", outcome.link.originalPath)
                                : textFormat("ui.disks.relink_failed", outcome.link.originalPath, outcome.failure));
              }
              showResult(allRelinked, message.toStdString());
              requestFacts();
            });
      });
}

void DisksPage::showResult(bool success, const std::optional<std::string>& message) {
  tell(this, success ? text("ui.done") : text("ui.failed"),
       message ? qstr(*message) : (success ? text("ui.done") : text("ui.failed")));
  requestFacts();
}

}  // namespace corvane::ui
