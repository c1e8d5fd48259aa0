// Compiled only by the layering test: the support layer reaching up into the engine must fail.
#include "engine/migration_issue.h"
