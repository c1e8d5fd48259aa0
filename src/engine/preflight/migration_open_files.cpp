#include "engine/preflight/migration_open_files.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <memory>
#include <stdexcept>
#include <thread>
#include <unordered_set>

#include "engine/preflight/migration_tool_deadlines.h"
#include "platform/open_file_fields.h"
#include "platform/open_file_lister.h"
#include "platform/process.h"
#include "support/bounded_work.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"

namespace corvane {
namespace {

bool identityBefore(const MigrationFileIdentity& a, const MigrationFileIdentity& b) {
  return a.device != b.device ? a.device < b.device : a.inode < b.inode;
}

constexpr std::string_view kOccupancyUnknown = "migration.preflight.occupancy_unknown";
// lsof output on a busy machine runs to tens of megabytes; past this the run is not trusted.
constexpr std::size_t kListerOutputLimit = 256 * 1024 * 1024;
constexpr std::string_view kPathDeviceNote = " (path dev=";
constexpr std::string_view kFilePickerFramework = "/System/Library/Frameworks/AppKit.framework/";
constexpr std::string_view kFilePickerService = "com.apple.appkit.xpc.openAndSavePanelService";

bool isDecimal(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

template <typename Number>
Number parseNumber(std::string_view text, int base, char field) {
  Number value{};
  if (base == 16) {
    if (text.substr(0, 2) == "0x" || text.substr(0, 2) == "0X") text.remove_prefix(2);
  }
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) {
    throw std::runtime_error(fmt::format("unreadable {} field \"{}\"", field, text));
  }
  return value;
}

// The name without the notes lsof appends after a path.
std::string_view pathPart(std::string_view name) {
  for (std::string_view note : {std::string_view(" (deleted)"), kPathDeviceNote, std::string_view(" (path inode=")}) {
    auto at = name.find(note);
    if (at != std::string_view::npos) name = name.substr(0, at);
  }
  return name;
}

// "... (path dev=M,N)": the device the mapped file's path leads to, where the map names
// another (a btrfs subvolume's files are mapped under the file system's device).
std::optional<std::int32_t> pathDevice(std::string_view name) {
  auto at = name.rfind(kPathDeviceNote);
  if (at == std::string_view::npos) return std::nullopt;
  std::string_view pair = name.substr(at + kPathDeviceNote.size());
  auto comma = pair.find(',');
  auto close = pair.find(')');
  if (comma == std::string_view::npos || close == std::string_view::npos || close < comma) return std::nullopt;
  unsigned major = 0, minor = 0;
  if (std::from_chars(pair.data(), pair.data() + comma, major).ec != std::errc() ||
      std::from_chars(pair.data() + comma + 1, pair.data() + close, minor).ec != std::errc()) {
    return std::nullopt;
  }
  return static_cast<std::int32_t>(platform::deviceNumber(major, minor));
}

std::string itemAbsolutePath(const std::string& source, std::string_view relativePath) {
  return relativePath.empty() ? source : joinPath(source, relativePath);
}

struct PendingRecord {
  bool active = false;
  std::string descriptor;
  std::string access;
  std::string type;
  std::optional<std::int64_t> device;
  std::optional<std::uint64_t> inode;
  std::string name;
};

struct ReferenceKey {
  std::size_t operator()(const MigrationOpenFiles::Reference& reference) const noexcept {
    return std::hash<std::string>{}(reference.descriptor) ^ (std::hash<std::uint64_t>{}(reference.inode) << 1) ^
           (static_cast<std::size_t>(reference.pid) << 3);
  }
};

}  // namespace

MigrationOpenFiles::Blocked::Blocked(std::string source, std::vector<Group> groups)
    : MigrationIssue("migration.occupancy.header", std::move(source)), groups_(std::move(groups)) {}

MigrationOpenFiles::Result MigrationOpenFiles::inspectWithLsof(const std::string& executable) {
  platform::ProcessRequest request;
  request.executable = executable;
  request.arguments = {"-nP", "+c", "0", "-F0pcfatDin"};
  auto environment = platform::currentEnvironment();
  environment["LC_ALL"] = "C";
  request.environment = std::move(environment);
  // Not the caller's directory: the lister's own working directory must never lie in an item.
  request.workingDirectory = "/";
  request.outputLimit = kListerOutputLimit;
  const auto deadlines = MigrationToolDeadlines::current().openFileLister;
  const auto run = platform::runProcess(request, deadlines);
  if (run.timedOut) {
    logWarning(fmt::format("lsof did not finish within {} ms and was stopped", deadlines.exit.count()));
    throw MigrationIssue(std::string(kOccupancyUnknown));
  }
  if (run.readersTimedOut || run.outputTruncated || run.outputReadFailed) {
    logWarning(fmt::format("lsof output incomplete (readers timed out: {}, exceeded: {}, read failed: {})",
                           run.readersTimedOut, run.outputTruncated, run.outputReadFailed));
    throw MigrationIssue(std::string(kOccupancyUnknown));
  }
  Result result;
  result.status = run.exit.exited() ? run.exit.exitCode : 128 + run.exit.signal;
  result.standardOutput = run.standardOutput;
  result.standardError = run.standardError;
  return result;
}

namespace {

// The native scan on a worker of its own, with the lister's bound: the scan reads the attributes
// of files all over the machine, and a file system that stopped answering can hold any such call
// for good. A scan that does not finish is abandoned and the state counts as unknown.
MigrationOpenFiles::Result boundedNativeScan(std::function<std::string()> scan) {
  const auto deadline = MigrationToolDeadlines::current().openFileLister.exit;
  auto output = runWithin(deadline, std::move(scan));
  if (!output) {
    logWarning(fmt::format("The open-file scan did not finish within {} ms and was abandoned", deadline.count()));
    throw MigrationIssue(std::string(kOccupancyUnknown));
  }
  MigrationOpenFiles::Result result;
  result.standardOutput = std::move(*output);
  result.status = result.standardOutput.empty() ? 1 : 0;
  return result;
}

}  // namespace

MigrationOpenFiles::Result MigrationOpenFiles::inspectNatively() {
  return boundedNativeScan([] { return platform::listOpenFilesNatively(); });
}

MigrationOpenFiles::Result MigrationOpenFiles::inspectNatively(const std::string& source, const FileIndex& index) {
  // The scan may outlive this call, so it owns what it reads: the identities alone, sorted, a
  // fraction of the index's size.
  auto identities = std::make_shared<std::vector<MigrationFileIdentity>>(index.identities());
  platform::OpenFileQuery query;
  query.within = source;
  for (const auto& identity : *identities) {
    if (std::find(query.devices.begin(), query.devices.end(), identity.device) == query.devices.end())
      query.devices.push_back(identity.device);
  }
  query.wanted = [identities](std::int64_t device, std::uint64_t inode) {
    // The same narrowing the manifest applies to st_dev.
    return std::binary_search(identities->begin(), identities->end(),
                              MigrationFileIdentity{static_cast<std::int32_t>(device), inode}, identityBefore);
  };
  return boundedNativeScan([query] { return platform::listOpenFilesNatively(query); });
}

MigrationOpenFiles::Result MigrationOpenFiles::inspect() {
  if (platform::defaultOpenFileLister() == platform::OpenFileLister::native) return inspectNatively();
  return inspectWithLsof(platform::lsofExecutablePath());
}

MigrationOpenFiles::Result MigrationOpenFiles::inspect(const std::string& source, const FileIndex& index) {
  if (platform::defaultOpenFileLister() == platform::OpenFileLister::native) return inspectNatively(source, index);
  return inspectWithLsof(platform::lsofExecutablePath());
}

MigrationOpenFiles::Inspect MigrationOpenFiles::defaultInspect() {
  return [](const std::string& source, const FileIndex& index) { return inspect(source, index); };
}

MigrationOpenFiles::Inspect MigrationOpenFiles::lsofInspect(const std::string& executable) {
  return [executable](const std::string&, const FileIndex&) { return inspectWithLsof(executable); };
}

MigrationOpenFiles::FileIndex MigrationOpenFiles::fileIndex(const MigrationManifest& manifest) {
  return FileIndex(manifest);
}

MigrationOpenFiles::FileIndex::FileIndex(const MigrationManifest& manifest) {
  files_.reserve(manifest.size());
  for (const auto& named : manifest) files_.emplace_back(named.second.identity(), &named);
  // Stable: the names of one identity stay in manifest order, the first of them leading.
  std::stable_sort(files_.begin(), files_.end(),
                   [](const Named& a, const Named& b) { return identityBefore(a.first, b.first); });
}

std::optional<MigrationOpenFiles::IndexedFile> MigrationOpenFiles::FileIndex::find(
    const MigrationFileIdentity& identity) const {
  auto first = std::lower_bound(
      files_.begin(), files_.end(), identity,
      [](const Named& named, const MigrationFileIdentity& wanted) { return identityBefore(named.first, wanted); });
  if (first == files_.end() || first->first != identity) return std::nullopt;
  IndexedFile file;
  file.relativePath = first->second->first;
  file.kind = first->second->second.kind;
  for (auto other = first + 1; other != files_.end() && other->first == identity; ++other) {
    file.otherPaths.push_back(other->second->first);
  }
  return file;
}

std::vector<MigrationFileIdentity> MigrationOpenFiles::FileIndex::identities() const {
  std::vector<MigrationFileIdentity> result;
  result.reserve(files_.size());
  for (const auto& [identity, named] : files_) {
    if (result.empty() || result.back() != identity) result.push_back(identity);
  }
  return result;
}

MigrationOpenFiles::Reason MigrationOpenFiles::reasonFor(std::string_view descriptor, std::string_view access,
                                                         std::string_view type) {
  // A deleted file that is still mapped shows as DEL: it runs like any other mapping.
  if (descriptor == "txt" || descriptor == "mem" || descriptor == "DEL") return Reason::runtime;
  if (descriptor == "cwd" || descriptor == "rtd") return Reason::working_directory;
  if (type == "unix" || type == "FIFO") return Reason::endpoint;
  if (isDecimal(descriptor)) {
    if (type == "DIR") return Reason::directory;
    if (type == "REG" && access == "r") return Reason::read_only;
    if (access == "w" || access == "u") return Reason::writable;
  }
  return Reason::unknown;
}

std::string_view MigrationOpenFiles::reasonName(Reason reason) {
  switch (reason) {
    case Reason::directory:
      return "directory";
    case Reason::read_only:
      return "read_only";
    case Reason::working_directory:
      return "working_directory";
    case Reason::runtime:
      return "runtime";
    case Reason::endpoint:
      return "endpoint";
    case Reason::writable:
      return "writable";
    case Reason::unknown:
      return "unknown";
  }
  return "unknown";
}

std::vector<MigrationOpenFiles::Reference> MigrationOpenFiles::references(std::string_view output,
                                                                          const std::string& source,
                                                                          const FileIndex& index) {
  std::vector<Reference> result;
  std::unordered_set<Reference, ReferenceKey> seen;
  std::optional<std::string> resolvedSource;
  pid_t pid = -1;
  std::string command;
  PendingRecord record;

  auto finish = [&] {
    if (!record.active) return;
    PendingRecord done = std::move(record);
    record = {};
    if (!done.device || !done.inode) return;
    MigrationFileIdentity identity{static_cast<std::int32_t>(*done.device), *done.inode};
    const std::string name = platform::unescapeListerText(done.name);
    auto found = index.find(identity);
    if (!found) {
      if (auto device = pathDevice(name)) found = index.find({*device, *done.inode});
    }
    if (!found) return;

    Reference reference;
    reference.pid = pid;
    reference.command = command;
    reference.descriptor = done.descriptor;
    reference.access = done.access;
    reference.type = done.type;
    reference.device = identity.device;
    reference.inode = identity.inode;
    reference.name = name;
    reference.reason = reasonFor(done.descriptor, done.access, done.type);
    reference.itemPath = std::string(found->relativePath);
    const std::string_view printedPath = pathPart(name);
    bool isItemPath = false;
    auto matches = [&](std::string_view relativePath) {
      if (printedPath == itemAbsolutePath(source, relativePath)) return true;
      if (!resolvedSource) resolvedSource = resolvingSymlinksInPath(source);
      return printedPath == itemAbsolutePath(*resolvedSource, relativePath);
    };
    if (matches(found->relativePath)) {
      isItemPath = true;
    } else {
      for (const auto& other : found->otherPaths) {
        if (matches(other)) {
          reference.itemPath = std::string(other);
          isItemPath = true;
          break;
        }
      }
    }
    reference.throughOtherHardLink = !isItemPath && found->kind == MigrationEntry::Kind::regular;
    // lsof repeats a process's files for each of its threads; one reference is enough.
    if (seen.insert(reference).second) result.push_back(std::move(reference));
  };

  try {
    std::size_t position = 0;
    while (position < output.size()) {
      if (output[position] == '\n') {
        ++position;
        continue;
      }
      const auto end = output.find('\0', position);
      if (end == std::string_view::npos) throw std::runtime_error("field output ends inside a field");
      const std::string_view field = output.substr(position, end - position);
      position = end + 1;
      const char id = field.front();
      const std::string_view value = field.substr(1);
      switch (id) {
        case 'p':
          finish();
          pid = parseNumber<pid_t>(value, 10, id);
          command.clear();
          break;
        case 'c':
          command = platform::unescapeListerText(value);
          break;
        case 'f':
          finish();
          if (pid < 0) throw std::runtime_error("file record before any process");
          record.active = true;
          record.descriptor = std::string(value);
          break;
        case 'a':
          record.access = std::string(value);
          break;
        case 't':
          record.type = std::string(value);
          break;
        case 'D':
          record.device = parseNumber<std::int64_t>(value, 16, id);
          break;
        case 'i':
          record.inode = parseNumber<std::uint64_t>(value, 10, id);
          break;
        case 'n':
          record.name = std::string(value);
          break;
        default:
          break;  // fields this check does not ask for
      }
    }
    finish();
  } catch (const std::runtime_error& failure) {
    if (dynamic_cast<const MigrationIssue*>(&failure)) throw;
    logWarning(fmt::format("Unreadable open-file listing: {}", failure.what()));
    throw MigrationIssue(std::string(kOccupancyUnknown), source);
  }
  return result;
}

namespace {

struct Classification {
  MigrationOpenFiles::GroupKind kind = MigrationOpenFiles::GroupKind::process;
  std::string name;
};

// The outermost application bundle on the path, without its extension.
std::optional<std::string> bundleName(std::string_view executable) {
  for (const auto& component : pathComponents(executable)) {
    if (component.size() > 4 && component.ends_with(".app")) return component.substr(0, component.size() - 4);
  }
  return std::nullopt;
}

std::string programOf(const std::optional<platform::ProcessDetails>& details) {
  return details && !details->executablePath.empty() ? lastComponent(details->executablePath) : std::string();
}

Classification classify(const std::string& command, const std::optional<platform::ProcessDetails>& details) {
  using Kind = MigrationOpenFiles::GroupKind;
  const std::string executable = details ? details->executablePath : std::string();
  const std::string program = programOf(details);
  if (std::string_view(executable).starts_with(kFilePickerFramework) || command == kFilePickerService ||
      program == kFilePickerService) {
    return {Kind::filePicker, {}};
  }
  if (MigrationOpenFiles::isGitMonitor(command, details)) return {Kind::gitMonitor, {}};
  if (command == "postgres" || program == "postgres") return {Kind::postgres, "PostgreSQL"};
  if (auto bundle = bundleName(executable)) return {Kind::bundleOrigin, *bundle};
  if (!command.empty()) return {Kind::process, command};
  if (!program.empty()) return {Kind::process, program};
  return {Kind::unnamed, {}};
}

template <typename Value>
void appendOnce(std::vector<Value>& values, const Value& value) {
  if (std::find(values.begin(), values.end(), value) == values.end()) values.push_back(value);
}

}  // namespace

bool MigrationOpenFiles::isGitMonitor(std::string_view command,
                                      const std::optional<platform::ProcessDetails>& details) {
  const std::string program = programOf(details);
  const bool isGit = command == "git" || program == "git" || command.starts_with("git-");
  const bool monitorArgument =
      details && std::any_of(details->arguments.begin(), details->arguments.end(),
                             [](const std::string& argument) { return argument == "fsmonitor--daemon"; });
  return (isGit && monitorArgument) || command.find("fsmonitor--daemon") != std::string_view::npos;
}

std::vector<MigrationOpenFiles::Group> MigrationOpenFiles::grouped(const std::vector<Reference>& references,
                                                                   const Identify& identify) {
  std::vector<Group> groups;
  std::map<std::string, std::size_t> groupByKey;
  std::map<pid_t, Classification> classified;
  for (const auto& reference : references) {
    auto known = classified.find(reference.pid);
    if (known == classified.end()) {
      std::optional<platform::ProcessDetails> details;
      if (identify) details = identify(reference.pid);
      known = classified.emplace(reference.pid, classify(reference.command, details)).first;
    }
    const Classification& classification = known->second;
    // Each process is its own group; the named families gather all their processes.
    std::string key;
    switch (classification.kind) {
      case GroupKind::process:
        key = fmt::format("process:{}", reference.pid);
        break;
      case GroupKind::bundleOrigin:
        key = "bundle:" + classification.name;
        break;
      default:
        key = fmt::format("family:{}", static_cast<int>(classification.kind));
        break;
    }
    auto [slot, inserted] = groupByKey.try_emplace(key, groups.size());
    if (inserted) groups.push_back(Group{classification.kind, classification.name, {}, {}, {}});
    Group& group = groups[slot->second];
    appendOnce(group.pids, reference.pid);
    GroupPath path{reference.itemPath, std::nullopt};
    if (reference.throughOtherHardLink) path.openedAs = std::string(pathPart(reference.name));
    appendOnce(group.paths, path);
    appendOnce(group.reasons, reference.reason);
  }
  return groups;
}

std::vector<MigrationOpenFiles::Reference> MigrationOpenFiles::occupyingReferences(const std::string& source,
                                                                                   const FileIndex& index,
                                                                                   const Inspect& inspect) {
  try {
    const Result run = inspect(source, index);
    if (run.status != 0 && run.status != 1) throw std::runtime_error(fmt::format("exit status {}", run.status));
    if (!run.standardError.empty()) throw std::runtime_error("standard error: " + run.standardError);
    if (run.status == 0 && run.standardOutput.empty()) throw std::runtime_error("status 0 without output");
    // Status 1 says that nothing at all is open; output beside it contradicts that.
    if (run.status == 1 && !run.standardOutput.empty()) throw std::runtime_error("status 1 with output");
    auto found = references(run.standardOutput, source, index);
    // Corvane itself (its working folder, the item it is reading) never blocks its own work.
    std::erase_if(found, [self = ::getpid()](const Reference& reference) { return reference.pid == self; });
    return found;
  } catch (const std::exception& failure) {
    logWarning(fmt::format("Migration lsof check failed: {}", failure.what()));
    throw MigrationIssue(std::string(kOccupancyUnknown), source);
  }
}

void MigrationOpenFiles::requireIdle(const std::string& source, const FileIndex& index, const Inspect& inspect,
                                     const WaitForRetry& waitForRetry, const std::function<void()>& onRecheck,
                                     const Identify& identify) {
  auto found = occupyingReferences(source, index, inspect);
  for (int attempt = 1; !found.empty(); ++attempt) {
    if (!waitForRetry || !waitForRetry(attempt)) throw Blocked(source, grouped(found, identify));
    if (onRecheck) onRecheck();
    found = occupyingReferences(source, index, inspect);
  }
}

MigrationOpenFiles::WaitForRetry MigrationOpenFiles::waitBetweenRechecks(int count,
                                                                         std::chrono::milliseconds interval) {
  return [count, interval](int attempt) {
    if (attempt > count) return false;
    std::this_thread::sleep_for(interval);
    return true;
  };
}

MigrationOpenFiles::WaitForRetry MigrationOpenFiles::noRecheck() {
  return [](int) { return false; };
}

MigrationOpenFiles::Identify MigrationOpenFiles::defaultIdentify() {
  return [](pid_t pid) { return platform::describeProcess(pid); };
}

}  // namespace corvane
