// The plain TCP reference: 4-byte length-prefixed frames over blocking
// loopback sockets, each role in its own process.
#pragma once

#include "rig.h"

namespace qelbench {

// A sender writing frames in 64 KiB writes and a receiver parsing them,
// connected directly or through a forwarder process that parses and re-sends
// every frame. With transform, every body is sealed and opened (Seal/Open).
Rig TcpThroughputRig(bool relay, bool transform);

// 100-byte ping-pong with TCP_NODELAY.
Rig TcpPingRig();

}  // namespace qelbench
