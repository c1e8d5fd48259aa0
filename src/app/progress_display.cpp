#include "app/progress_display.h"

#include <unistd.h>

#include "settings/byte_format.h"
#include "settings/duration_format.h"
#include "settings/localization.h"
#include "support/paths.h"

namespace corvane {

using Phase = MigrationItemProgress::Phase;

ProgressDisplay::Style ProgressDisplay::styleFor(std::FILE* stream) {
  return isatty(fileno(stream)) ? Style::redraw : Style::plain;
}

ProgressDisplay::ProgressDisplay(std::FILE* stream, Style style) : stream_(stream), style_(style) {}

ProgressDisplay::~ProgressDisplay() { clear(); }

std::string ProgressDisplay::describe(const MigrationItemProgress& item) {
  std::string line = item.name + "  " + localized("progress.phase." + std::string(phaseName(item.phase)));
  switch (item.phase) {
    case Phase::scanning:
      line += "  " + localizedFormat("progress.detail.scanned", item.scannedEntries);
      break;
    case Phase::copying:
    case Phase::verifying: {
      const bool copying = item.phase == Phase::copying;
      const std::int64_t done = copying ? item.copiedBytes : item.verifiedBytes;
      const std::int64_t total = copying ? item.totalBytes : item.verificationBytes;
      const std::int64_t entries = copying ? item.copiedEntries : item.verifiedEntries;
      if (item.measurable && total > 0) {
        const int percent = static_cast<int>(100.0 * static_cast<double>(done) / static_cast<double>(total));
        line += "  " + std::to_string(percent) + "%  " +
                localizedFormat("progress.detail.bytes", formatByteCount(done), formatByteCount(total));
      }
      line += "  " + (item.totalEntries > 0 ? localizedFormat("progress.detail.entries", entries, item.totalEntries)
                                            : localizedFormat("progress.detail.unmeasured", entries));
      if (copying && item.bytesPerSecond > 0) {
        line += "  " + localizedFormat("progress.detail.rate",
                                       formatByteCount(static_cast<std::int64_t>(item.bytesPerSecond)));
        const double remaining = static_cast<double>(std::max<std::int64_t>(total - done, 0)) / item.bytesPerSecond;
        line += "  " + localizedFormat("progress.detail.remaining", formatDuration(remaining));
      }
      break;
    }
    default:
      break;
  }
  return line;
}

void ProgressDisplay::show(const std::vector<MigrationItemProgress>& items) {
  std::lock_guard lock(mutex_);
  if (style_ == Style::plain) {
    const auto now = std::chrono::steady_clock::now();
    for (const auto& item : items) {
      if (item.phase == Phase::waiting) continue;
      auto last = lastPlain_.find(item.name);
      const bool changed = last == lastPlain_.end() || last->second.phase != item.phase;
      if (!changed && now - last->second.at < std::chrono::seconds(1)) continue;
      if (!changed && item.phase != Phase::copying && item.phase != Phase::verifying && item.phase != Phase::scanning)
        continue;
      std::fprintf(stream_, "%s\n", describe(item).c_str());
      lastPlain_[item.name] = {item.phase, now};
    }
    std::fflush(stream_);
    return;
  }
  std::vector<std::string> lines;
  for (const auto& item : items) {
    if (item.phase == Phase::waiting || item.phase == Phase::done || item.phase == Phase::failed ||
        item.phase == Phase::skipped) {
      continue;
    }
    lines.push_back(describe(item));
  }
  // Back to the first row drawn last time; every row is cleared and written again, and rows
  // no longer needed stay empty below.
  std::string text = drawnLines_ > 1 ? "\x1b[" + std::to_string(drawnLines_ - 1) + "F" : "\r";
  const std::size_t rows = std::max(lines.size(), drawnLines_);
  for (std::size_t row = 0; row < rows; ++row) {
    if (row > 0) text += "\n";
    text += "\x1b[2K";
    if (row < lines.size()) text += lines[row];
  }
  drawnLines_ = rows;
  std::fputs(text.c_str(), stream_);
  std::fflush(stream_);
}

void ProgressDisplay::clear() {
  std::lock_guard lock(mutex_);
  if (style_ == Style::redraw && drawnLines_ > 0) {
    std::string text = drawnLines_ > 1 ? "\x1b[" + std::to_string(drawnLines_ - 1) + "F" : "\r";
    for (std::size_t row = 0; row < drawnLines_; ++row) text += std::string(row ? "\n" : "") + "\x1b[2K";
    if (drawnLines_ > 1) text += "\x1b[" + std::to_string(drawnLines_ - 1) + "F";
    std::fputs(text.c_str(), stream_);
    std::fflush(stream_);
  }
  drawnLines_ = 0;
}

std::function<void(const std::vector<MigrationItemProgress>&)> showingShortNames(ProgressDisplay& display) {
  return [&display](std::vector<MigrationItemProgress> items) {
    for (auto& item : items) item.name = lastComponent(item.name);
    display.show(items);
  };
}

}  // namespace corvane
