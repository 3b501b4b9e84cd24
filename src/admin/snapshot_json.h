// A node's snapshot as JSON, for every view that shows it (the console's status, a host's
// own reports).
#pragma once

#include <qel/snapshot.h>

#include "admin/event_json.h"

namespace qel::admin {

// One object whose keys are the snapshot's member names, in their order; lists are arrays
// of objects, refusals an object of {"node":N,"process":N} by reason. Strings are QEL's
// bytes as they are: a writer that needs UTF-8 says how it handles the rest.
Json SnapshotJson(const NodeSnapshot& snapshot);

}  // namespace qel::admin
