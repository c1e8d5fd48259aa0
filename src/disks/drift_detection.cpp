#include "disks/drift_detection.h"

#include <algorithm>

#include "catalogue/migrated_apps_file.h"
#include "support/diagnostic_log.h"
#include "support/uuid.h"

namespace corvane {

std::optional<std::string> expectedVolumePath(const std::vector<MigratedApp>& records, const VolumesRoots& roots) {
  std::map<std::string, int> votes;
  for (const auto& record : records)
    if (auto volume = roots.volumePathOf(record.originalPath)) ++votes[*volume];
  if (votes.empty()) return std::nullopt;
  // Ties go to the first key met; nothing further breaks them.
  const auto winner = std::max_element(votes.begin(), votes.end(),
                                       [](const auto& left, const auto& right) { return left.second < right.second; });
  return winner->first;
}

DriftFindings scanForDriftedDisks(const std::vector<std::string>& disks, const VolumesRoots& roots,
                                  const FstabManager& fstab) {
  DriftFindings findings;
  for (const auto& disk : disks) {
    std::vector<MigratedApp> records;
    try {
      records = MigratedAppsFile::read(MigratedAppsFile::currentPath(disk));
    } catch (const std::exception& error) {
      logInfo("检查漂移失败 [" + disk + "]: " + error.what());
      continue;
    }
    const auto expected = expectedVolumePath(records, roots);
    if (!expected || *expected == disk) continue;
    logInfo("🔍 检测到路径不匹配: 当前 " + disk + "，但记录要求 " + *expected);
    if (fstab.checkGhostDirectory(*expected)) {
      logWarning("🚨 确认幽灵目录: " + *expected);
      findings.ghostPaths.push_back(*expected);
      findings.ghostDisks[*expected] = disk;
      if (auto node = fstab.getDeviceNode(disk)) {
        findings.driftDisksMap[*expected] = *node;
        logInfo("   关联设备节点: " + *node);
      }
    } else {
      logWarning("⚠️ 确认磁盘改名: 已挂载在 " + disk + "，但记录要求 " + *expected);
      findings.renamedDisks.push_back({makeUuidString(), disk, *expected});
    }
  }
  return findings;
}

}  // namespace corvane
