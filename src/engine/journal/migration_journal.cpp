#include "engine/journal/migration_journal.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <nlohmann/json.hpp>

#include "engine/migration_issue.h"
#include "platform/atomic_file_replacement.h"
#include "platform/directory_names.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "support/descriptor_io.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"
#include "support/uuid.h"

namespace corvane {
namespace {

constexpr std::size_t kEntryLimit = 64 * 1024;

std::string entryName(const std::string& id) { return id + ".json"; }
std::string lockName(const std::string& id) { return id + ".lock"; }

void makeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) platform::throwErrno(path);
}

platform::UniqueFd openJournalDirectory(const std::string& disk, bool create) {
  const std::string directory = MigrationJournal::directoryOf(disk);
  if (create) {
    makeDirectory(parentPath(directory));
    makeDirectory(directory);
  }
  platform::UniqueFd fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd && !(errno == ENOENT && !create)) platform::throwErrno(directory);
  return fd;
}

// The lock is a file of its own because the entry itself is replaced by renames.
platform::UniqueFd lockEntry(int directory, const std::string& id, const std::string& pathForErrors, bool wait) {
  platform::UniqueFd fd(::openat(directory, lockName(id).c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!fd) platform::throwErrno(pathForErrors);
  if (::flock(fd.get(), LOCK_EX | (wait ? 0 : LOCK_NB)) != 0) {
    if (errno == EWOULDBLOCK) return {};
    platform::throwErrno(pathForErrors);
  }
  return fd;
}

void writeEntry(int directory, const MigrationJournalEntry& entry) {
  const std::string path = joinPath(MigrationJournal::directoryOf(entry.disk), entryName(entry.id));
  platform::AtomicFileReplacement replacement(directory, entryName(entry.id), path);
  replacement.write(MigrationJournal::toJson(entry));
  replacement.commit();
}

// Test-only: lets a fault test stop the program at a named boundary instead of relying on timing.
void pauseIfRequested(const char* step) {
  const char* requested = std::getenv("CORVANE_TEST_PAUSE_AT");
  if (requested && std::string_view(requested) == step) ::raise(SIGSTOP);
}

nlohmann::json identityJson(const std::optional<MigrationFileIdentity>& identity) {
  if (!identity) return nullptr;
  return {{"device", identity->device}, {"inode", identity->inode}};
}

std::optional<MigrationFileIdentity> identityFrom(const nlohmann::json& value) {
  if (value.is_null()) return std::nullopt;
  return MigrationFileIdentity{value.at("device").get<std::int32_t>(), value.at("inode").get<std::uint64_t>()};
}

std::string absoluteField(const nlohmann::json& json, const char* key) {
  std::string value = json.at(key).get<std::string>();
  if (value.empty() || value.front() != '/' || standardizePath(value) != value)
    throw std::invalid_argument(std::string("journal entry field is not a plain absolute path: ") + key);
  return value;
}

std::string nowText() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  gmtime_r(&now, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

}  // namespace

std::string MigrationJournalEntry::stagingRoot() const {
  return joinPath(parentPath(destination), ".corvane-transfer-" + id);
}

std::string MigrationJournalEntry::payload() const { return joinPath(stagingRoot(), lastComponent(destination)); }

std::string MigrationJournalEntry::rehearsal() const {
  return joinPath(parentPath(itemPath()), ".corvane-access-" + id);
}

std::string MigrationJournalEntry::keptOriginal() const { return source + ".corvane_backup_" + id; }

MigrationJournal::MigrationJournal(std::string disk, MigrationJournalDirection direction, std::string name) {
  entry_.id = makeUuidString();
  entry_.disk = standardizePath(disk);
  entry_.direction = direction;
  entry_.name = std::move(name);
}

std::string MigrationJournal::directoryOf(const std::string& disk) { return joinPath(disk, ".corvane/journal"); }

void MigrationJournal::open(const std::string& source, const std::string& destination, bool retainOriginal,
                            MigrationFileIdentity sourceIdentity) {
  entry_.source = standardizePath(source);
  entry_.destination = standardizePath(destination);
  entry_.retainOriginal = retainOriginal;
  entry_.sourceIdentity = sourceIdentity;
  entry_.startedAt = nowText();
  entry_.step = Step::started;
  const auto directory = openJournalDirectory(entry_.disk, true);
  lock_ = lockEntry(directory.get(), entry_.id, directoryOf(entry_.disk), true);
  writeEntry(directory.get(), entry_);
  pauseIfRequested(Step::started);
}

void MigrationJournal::mark(const char* step) {
  if (!isOpen()) return;
  entry_.step = step;
  const auto directory = openJournalDirectory(entry_.disk, false);
  if (!directory) platform::throwErrno(ENOENT, directoryOf(entry_.disk));
  writeEntry(directory.get(), entry_);
  pauseIfRequested(step);
}

void MigrationJournal::close() {
  if (!isOpen()) return;
  discard(entry_.disk, entry_.id, lock_);
}

void MigrationJournal::discard(const std::string& disk, const std::string& id, platform::UniqueFd& lock) {
  const auto directory = openJournalDirectory(disk, false);
  if (directory) {
    // The entry goes first: a lock file left alone names nothing and is harmless.
    if (::unlinkat(directory.get(), entryName(id).c_str(), 0) != 0 && errno != ENOENT)
      platform::throwErrno(joinPath(directoryOf(disk), entryName(id)));
    platform::flushDescriptor(directory.get(), directoryOf(disk));
    // A write killed half way leaves its temporary copy; with the lock held no writer is left.
    const std::string temporaryPrefix = "." + entryName(id) + ".";
    for (const auto& name : platform::directoryNames(directory.get(), directoryOf(disk))) {
      if (name.starts_with(temporaryPrefix) && name.ends_with(".tmp")) ::unlinkat(directory.get(), name.c_str(), 0);
    }
    ::unlinkat(directory.get(), lockName(id).c_str(), 0);
  }
  lock.reset();
}

void MigrationJournal::rewrite(const MigrationJournalEntry& entry) {
  const auto directory = openJournalDirectory(entry.disk, false);
  if (!directory) platform::throwErrno(ENOENT, directoryOf(entry.disk));
  writeEntry(directory.get(), entry);
}

std::optional<platform::UniqueFd> MigrationJournal::claim(const std::string& disk, const std::string& id) {
  const auto directory = openJournalDirectory(disk, false);
  if (!directory) return std::nullopt;
  auto lock = lockEntry(directory.get(), id, directoryOf(disk), false);
  if (!lock) return std::nullopt;
  return lock;
}

namespace {

// The entry a journal file belongs to: "<id>.lock", or the temporary ".<id>.json.<...>.tmp" an
// atomic write makes beside it.
std::optional<std::string> abandonedCandidate(const std::string& name) {
  std::string id;
  if (name.size() == 36 + 5 && name.ends_with(".lock")) {
    id = name.substr(0, 36);
  } else if (name.starts_with(".") && name.ends_with(".tmp") && name.size() > 1 + 36 + 5) {
    id = name.substr(1, 36);
    if (name.compare(37, 6, ".json.") != 0) return std::nullopt;
  } else {
    return std::nullopt;
  }
  if (!isUuidString(id)) return std::nullopt;
  return id;
}

// Calls `each` with the name and the held lock of every abandoned file.
void forEachAbandoned(const std::string& disk,
                      const std::function<void(int directory, const std::string& name)>& each) {
  const auto directory = openJournalDirectory(disk, false);
  if (!directory) return;
  auto names = platform::directoryNames(directory.get(), MigrationJournal::directoryOf(disk));
  // Temporary files before the locks that guard them.
  std::stable_partition(names.begin(), names.end(), [](const std::string& name) { return !name.ends_with(".lock"); });
  for (const auto& name : names) {
    const auto id = abandonedCandidate(name);
    if (!id || std::find(names.begin(), names.end(), entryName(*id)) != names.end()) continue;
    // A writer takes the lock before it writes and holds it while it lives; a lock file that is
    // missing or free has no living writer behind it.
    platform::UniqueFd lock(::openat(directory.get(), lockName(*id).c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (lock && ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) continue;
    struct stat status {};
    if (::fstatat(directory.get(), entryName(*id).c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) continue;
    each(directory.get(), name);
  }
}

}  // namespace

std::vector<std::string> MigrationJournal::abandonedFiles(const std::string& disk) {
  std::vector<std::string> paths;
  forEachAbandoned(disk, [&](int, const std::string& name) { paths.push_back(joinPath(directoryOf(disk), name)); });
  return paths;
}

void MigrationJournal::removeAbandonedFiles(const std::string& disk) {
  forEachAbandoned(disk, [&](int directory, const std::string& name) {
    if (::unlinkat(directory, name.c_str(), 0) != 0 && errno != ENOENT)
      platform::throwErrno(joinPath(directoryOf(disk), name));
  });
}

MigrationJournal::Listing MigrationJournal::list(const std::string& disk) {
  Listing listing;
  const std::string directoryPath = directoryOf(disk);
  const auto directory = openJournalDirectory(disk, false);
  if (!directory) return listing;
  DIR* stream = ::fdopendir(::dup(directory.get()));
  if (!stream) platform::throwErrno(directoryPath);
  std::vector<std::string> names;
  while (const dirent* item = ::readdir(stream)) {
    const std::string name = item->d_name;
    if (name.size() > 5 && name.ends_with(".json") && name.front() != '.') names.push_back(name);
  }
  ::closedir(stream);
  std::sort(names.begin(), names.end());
  for (const auto& name : names) {
    const std::string path = joinPath(directoryPath, name);
    try {
      platform::UniqueFd fd(::openat(directory.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
      std::string text;
      if (!fd || !readToEnd(fd.get(), text, kEntryLimit)) platform::throwErrno(path);
      auto entry = fromJson(text);
      if (entryName(entry.id) != name) throw std::invalid_argument("journal entry named after another UUID");
      if (standardizePath(entry.disk) != standardizePath(disk)) entry.disk = standardizePath(disk);
      listing.entries.push_back(std::move(entry));
    } catch (const std::exception& error) {
      logWarning("journal entry " + path + " cannot be read: " + error.what());
      listing.unreadable.push_back(path);
    }
  }
  return listing;
}

std::string MigrationJournal::toJson(const MigrationJournalEntry& entry) {
  nlohmann::json json{
      {"id", entry.id},
      {"direction", entry.direction == MigrationJournalDirection::migrate ? "migrate" : "back"},
      {"disk", entry.disk},
      {"name", entry.name},
      {"source", entry.source},
      {"destination", entry.destination},
      {"retainOriginal", entry.retainOriginal},
      {"step", entry.step},
      {"startedAt", entry.startedAt},
      {"stagingFolder", entry.stagingRoot()},
      {"temporaryNames", {entry.rehearsal(), entry.keptOriginal()}},
      {"sourceIdentity", identityJson(entry.sourceIdentity)},
      {"stagingIdentity", identityJson(entry.stagingIdentity)},
      {"payloadIdentity", identityJson(entry.payloadIdentity)},
  };
  return json.dump(2) + "\n";
}

MigrationJournalEntry MigrationJournal::fromJson(const std::string& text) {
  const auto json = nlohmann::json::parse(text);
  MigrationJournalEntry entry;
  entry.id = json.at("id").get<std::string>();
  if (!isUuidString(entry.id)) throw std::invalid_argument("journal entry without a UUID");
  const auto direction = json.at("direction").get<std::string>();
  if (direction == "migrate") {
    entry.direction = MigrationJournalDirection::migrate;
  } else if (direction == "back") {
    entry.direction = MigrationJournalDirection::back;
  } else {
    throw std::invalid_argument("journal entry with an unknown direction");
  }
  entry.disk = absoluteField(json, "disk");
  entry.name = json.at("name").get<std::string>();
  entry.source = absoluteField(json, "source");
  entry.destination = absoluteField(json, "destination");
  entry.retainOriginal = json.at("retainOriginal").get<bool>();
  entry.step = json.at("step").get<std::string>();
  entry.startedAt = json.value("startedAt", "");
  entry.sourceIdentity = identityFrom(json.at("sourceIdentity"));
  entry.stagingIdentity = identityFrom(json.at("stagingIdentity"));
  entry.payloadIdentity = identityFrom(json.at("payloadIdentity"));
  return entry;
}

}  // namespace corvane
