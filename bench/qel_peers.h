// QEL nodes in the benchmark's roles, each in its own process.
#pragma once

#include <string>

#include "rig.h"

namespace qelbench {

// The advanced settings text of every node: defaults, or compression and
// encryption on (netPass stays the default, the same on every node).
std::string QelSettings(bool compEnc);

// A sending node and a receiving node, connected directly or through a relay
// node that connects to both (so both ends learn its INFO).
Rig QelThroughputRig(bool relay, bool compEnc);

// A node pinging a node of another process that it has asked for its INFO.
Rig QelPingRig();

}  // namespace qelbench
