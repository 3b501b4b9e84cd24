// A node's snapshot as JSON, for every view that shows it (the console's status, a host's
// own reports).
#pragma once

#include <nlohmann/json.hpp>

#include <qel/snapshot.h>

namespace qelcli {

// One object whose keys are the snapshot's member names, in their order; lists are arrays
// of objects, refusals an object of {"node":N,"process":N} by reason. Strings are QEL's
// bytes as they are: a writer that needs UTF-8 says how it handles the rest.
nlohmann::ordered_json SnapshotJson(const qel::NodeSnapshot& snapshot);

}  // namespace qelcli
