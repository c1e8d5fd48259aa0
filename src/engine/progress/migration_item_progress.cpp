#include "engine/progress/migration_item_progress.h"

#include <array>

namespace corvane {
namespace {
constexpr std::array<std::string_view, 13> kPhaseNames = {
    "waiting",    "preparing", "scanning",    "copying", "verifying", "checking", "switching",
    "supporting", "cleaning",  "rollingBack", "done",    "failed",    "skipped"};
}

std::string_view phaseName(MigrationItemProgress::Phase phase) { return kPhaseNames[static_cast<std::size_t>(phase)]; }

}  // namespace corvane
