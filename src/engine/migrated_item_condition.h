// How a migrated item stands now, read from the disk and the original place: what the record
// list of every front end shows beside each record.
#pragma once

#include "catalogue/migrated_app.h"

namespace corvane {

enum class LinkCondition { inPlace, pointsElsewhere, replacedByRealItem, missing, diskMissing };

// The stable name used in reports and in the keys "cli.list.link.<name>".
const char* conditionName(LinkCondition condition);
// Reads both places without following links.
LinkCondition conditionOf(const MigratedApp& app);

}  // namespace corvane
