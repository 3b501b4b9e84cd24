// QEL nodes in the benchmark's roles, each in its own process.
#pragma once

#include <string>

#include "rig.h"

namespace qelbench {

// The advanced settings text of every node: defaults, or compression and
// encryption on (netPass stays the default, the same on every node), and
// with secure set TLS on every link (secureMode require, fresh keys, any key
// accepted).
std::string QelSettings(bool compEnc, bool secure = false);

// A sending node and a receiving node, connected directly or through a relay
// node that connects to both (so both ends learn its INFO).
Rig QelThroughputRig(bool relay, bool compEnc);
// The same over TLS links.
Rig QelSecureThroughputRig(bool relay, bool compEnc);
// The same with an admin server (HTTP) running beside the receiver, no client asking.
Rig QelHttpThroughputRig(bool relay, bool compEnc);

// A node dialling a node of another process, waiting for the link to be up
// (ConnectionEstab), closing it and waiting for ConnectionClosed, once per
// round trip; secure: over TLS.
Rig QelLinkSetupRig(bool secure);

// A node pinging a node of another process that it has asked for its INFO.
Rig QelPingRig();
// The same with both processes polling for 50 µs before they block.
Rig QelBusyPingRig();

// A node calling a procedure of a node of another process, which answers
// each call from inside its handler with the call's own parameters; the
// caller's "rtt" report counts as failures the calls unanswered within 3 s
// and the answers that came back altered.
Rig QelRpcRig();

}  // namespace qelbench
