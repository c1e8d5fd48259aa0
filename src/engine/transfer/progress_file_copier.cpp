#include "engine/transfer/progress_file_copier.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <unordered_map>

#include "engine/manifest/migration_copy_workload.h"
#include "engine/manifest/migration_file_metadata.h"
#include "engine/migration_issue.h"
#include "platform/posix_error.h"
#include "platform/tree_copier.h"

namespace corvane {
namespace {

using platform::CopyAnswer;
using platform::CopyEvent;
using platform::CopyStage;
using platform::CopyWhat;

class CopyContext {
 public:
  CopyContext(const std::string& source, const std::string& destination, const MigrationManifest& manifest,
              const std::set<std::string>& inactiveSockets, const ProgressFileCopier::Progress& progress,
              MigrationStagingArea& ownership, const std::map<std::string, std::string>& relocatedLinks,
              const ProgressFileCopier::Cancelled& cancelled)
      : source_(source),
        destination_(destination),
        manifest_(manifest),
        inactiveSockets_(inactiveSockets),
        progress_(progress),
        ownership_(ownership),
        relocatedLinks_(relocatedLinks),
        cancelled_(cancelled) {
    // Only identities with several names need to know where their first copy went; finding
    // them costs a short-lived sorted list instead of a map entry for every file.
    std::vector<MigrationFileIdentity> identities;
    for (const auto& [relativePath, entry] : manifest) {
      if (entry.kind == MigrationEntry::Kind::regular) identities.push_back(entry.identity());
    }
    std::sort(identities.begin(), identities.end(), [](const auto& a, const auto& b) {
      return a.device != b.device ? a.device < b.device : a.inode < b.inode;
    });
    for (std::size_t i = 1; i < identities.size(); ++i) {
      if (identities[i] == identities[i - 1]) firstNames_.emplace(identities[i], nullptr);
    }
  }

  CopyAnswer handle(const CopyEvent& event) {
    try {
      recordOwnership(event);
      if (event.stage == CopyStage::error) {
        error_ = std::make_exception_ptr(platform::PosixError(event.error, event.destination));
        return CopyAnswer::quit;
      }
      if (event.what == CopyWhat::recurseFile && event.stage == CopyStage::start) {
        if (cancelled_ && cancelled_()) throw platform::PosixError(ECANCELED, event.destination);
        return startFile(event);
      }
      if (event.what == CopyWhat::copyData && event.stage == CopyStage::progress) {
        if (const MigrationEntry* entry = entryFor(event.source)) {
          credit(std::min<std::int64_t>(event.copiedBytes, std::max<std::int64_t>(entry->size, 0)), entry->identity());
          report(event.source);
        }
      }
      if (event.what == CopyWhat::recurseFile && event.stage == CopyStage::finish) {
        if (const MigrationEntry* entry = entryFor(event.source)) {
          if (entry->kind == MigrationEntry::Kind::regular)
            credit(std::max<std::int64_t>(entry->size, 0), entry->identity());
        }
        ++completed_;
        report(event.source);
      }
      if (event.what == CopyWhat::recurseDirectoryCleanup && event.stage == CopyStage::finish) {
        ++completed_;
        report(event.source);
      }
      return CopyAnswer::proceed;
    } catch (...) {
      if (!error_) error_ = std::current_exception();
      return CopyAnswer::quit;
    }
  }

  const std::exception_ptr& error() const { return error_; }

 private:
  void recordOwnership(const CopyEvent& event) {
    if (event.destination.empty()) return;
    const bool starting = event.stage == CopyStage::start &&
                          (event.what == CopyWhat::recurseFile || event.what == CopyWhat::recurseDirectory);
    const bool finished = event.stage == CopyStage::finish &&
                          (event.what == CopyWhat::recurseFile || event.what == CopyWhat::recurseDirectoryCleanup ||
                           event.what == CopyWhat::copyData);
    if (starting) {
      auto slash = event.destination.rfind('/');
      if (slash != std::string::npos && slash > 0) ownership_.recordCreated(event.destination.substr(0, slash));
    } else if (finished) {
      ownership_.recordCreated(event.destination);
    } else if (event.what == CopyWhat::copyData && event.stage == CopyStage::progress) {
      // A file's data arrives in consecutive events: it is recorded at the first of them.
      if (event.destination != recordingData_) {
        ownership_.recordCreated(event.destination);
        recordingData_ = event.destination;
      }
    } else if (event.stage == CopyStage::error) {
      ownership_.recordCreated(event.destination, RecordScope::onlyKnown);
    }
  }

  std::optional<std::string> relativeOf(const std::string& sourcePath) const {
    if (sourcePath == source_) return std::string();
    if (sourcePath.size() > source_.size() && sourcePath.compare(0, source_.size(), source_) == 0 &&
        sourcePath[source_.size()] == '/') {
      return sourcePath.substr(source_.size() + 1);
    }
    return std::nullopt;
  }

  const MigrationEntry* entryFor(const std::string& sourcePath) const {
    auto relative = relativeOf(sourcePath);
    if (!relative) return nullptr;
    auto found = manifest_.find(*relative);
    return found == manifest_.end() ? nullptr : &found->second;
  }

  CopyAnswer startFile(const CopyEvent& event) {
    auto relative = relativeOf(event.source);
    if (!relative) return CopyAnswer::proceed;
    auto found = manifest_.find(*relative);
    // Anything not scanned is a change of the source; the final checks name it as such.
    if (found == manifest_.end()) throw MigrationIssue("error.migration_source_changed", event.source);
    const MigrationEntry& entry = found->second;
    switch (entry.kind) {
      case MigrationEntry::Kind::socket:
        if (inactiveSockets_.count(*relative)) {
          auto now = MigrationEntry::read(event.source, AT_FDCWD);
          if (now && now->kind == MigrationEntry::Kind::socket) return CopyAnswer::skip;
          throw MigrationIssue("error.migration_source_changed", event.source);
        }
        throw MigrationIssue("migration.preflight.runtime", event.source);
      case MigrationEntry::Kind::fifo:
        MigrationFileMetadata::createFIFO(event.source, event.destination);
        ownership_.recordCreated(event.destination);
        ++completed_;
        return CopyAnswer::skip;
      case MigrationEntry::Kind::symbolicLink:
        if (auto relocated = relocatedLinks_.find(*relative); relocated != relocatedLinks_.end()) {
          if (symlink(relocated->second.c_str(), event.destination.c_str()) != 0)
            platform::throwErrno(event.destination);
          ownership_.recordCreated(event.destination);
          ++completed_;
          report(event.source);
          return CopyAnswer::skip;
        }
        return CopyAnswer::proceed;
      case MigrationEntry::Kind::regular: {
        auto shared = firstNames_.find(entry.identity());
        if (shared == firstNames_.end()) return CopyAnswer::proceed;
        if (shared->second) {
          const std::string first = destination_ + "/" + *shared->second;
          if (link(first.c_str(), event.destination.c_str()) != 0) platform::throwErrno(event.destination);
          ownership_.recordCreated(event.destination);
          ++completed_;
          report(event.source);
          return CopyAnswer::skip;
        }
        shared->second = &found->first;
        return CopyAnswer::proceed;
      }
      default:
        return CopyAnswer::proceed;
    }
  }

  // A file's credit only grows, and only its growth is added to the total. Each file is copied
  // from its first event to its last before the next one starts.
  void credit(std::int64_t bytes, const MigrationFileIdentity& identity) {
    if (crediting_ != identity) {
      crediting_ = identity;
      credited_ = 0;
    }
    std::int64_t& count = credited_;
    const std::int64_t offered = std::max<std::int64_t>(bytes, 0);
    if (offered > count) {
      totalBytes_ += offered - count;
      count = offered;
    }
  }

  void report(const std::string& path) {
    if (progress_) progress_(MigrationCopyUpdate{totalBytes_, completed_, path});
  }

  const std::string& source_;
  const std::string& destination_;
  const MigrationManifest& manifest_;
  const std::set<std::string>& inactiveSockets_;
  const ProgressFileCopier::Progress& progress_;
  MigrationStagingArea& ownership_;
  const std::map<std::string, std::string>& relocatedLinks_;
  const ProgressFileCopier::Cancelled& cancelled_;
  std::exception_ptr error_;
  std::int64_t completed_ = 0;
  std::string recordingData_;
  // Identities with several names -> the manifest key of the name copied first (null until
  // then); every further name becomes a hard link to that copy.
  std::unordered_map<MigrationFileIdentity, const std::string*> firstNames_;
  MigrationFileIdentity crediting_;
  std::int64_t credited_ = 0;
  std::int64_t totalBytes_ = 0;
};

// A copy that stopped leaves directories whose last record predates their newest entries.
// A conflict found here is found again by the removal, which then leaves everything in place,
// so the copy's own error stays the one reported.
void bringDirectoryRecordsUpToDate(MigrationStagingArea& ownership) {
  try {
    ownership.refreshDirectories();
  } catch (const std::exception&) {
  }
}

}  // namespace

void ProgressFileCopier::copy(const std::string& source, const std::string& destination,
                              const MigrationManifest& manifest, const std::set<std::string>& inactiveSockets,
                              const std::map<std::string, std::string>& relocatedLinks, MigrationStagingArea& ownership,
                              const Progress& progress, const Cancelled& cancelled) {
  if (MigrationEntry::read(destination, AT_FDCWD)) throw platform::PosixError(EEXIST, destination);
  CopyContext context(source, destination, manifest, inactiveSockets, progress, ownership, relocatedLinks, cancelled);
  try {
    platform::copyTree(source, destination, [&](const CopyEvent& event) { return context.handle(event); });
  } catch (...) {
    bringDirectoryRecordsUpToDate(ownership);
    if (context.error()) std::rethrow_exception(context.error());
    throw;
  }
  if (context.error()) {
    bringDirectoryRecordsUpToDate(ownership);
    std::rethrow_exception(context.error());
  }
  ownership.recordCreated(destination);
  const MigrationCopyWorkload workload(manifest, inactiveSockets);
  if (progress) progress(MigrationCopyUpdate{workload.bytes, workload.entries, source});
}

}  // namespace corvane
