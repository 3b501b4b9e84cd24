// The ZeroMQ reference (libzmq's C API over tcp:// on loopback), each role in
// its own process with libzmq's default single I/O thread.
#pragma once

#include "rig.h"

namespace qelbench {

// PUSH to PULL, directly or through a forwarder process running zmq_proxy
// between a PULL and a PUSH socket. With transform, every body is sealed and
// opened (Seal/Open).
Rig ZmqThroughputRig(bool relay, bool transform);

// 100-byte REQ/REP round trips.
Rig ZmqPingRig();

}  // namespace qelbench
