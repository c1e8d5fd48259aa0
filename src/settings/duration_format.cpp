#include "settings/duration_format.h"

#include <algorithm>
#include <cmath>

#include "settings/localization.h"

namespace corvane {

std::string formatDuration(double seconds) {
  const long total = std::lround(std::max(seconds, 0.0));
  if (total >= 3600) return localizedFormat("progress.duration.hours", total / 3600, (total % 3600) / 60);
  if (total >= 60) return localizedFormat("progress.duration.minutes", total / 60, total % 60);
  return localizedFormat("progress.duration.seconds", total);
}

}  // namespace corvane
