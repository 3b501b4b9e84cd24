// The plain TCP reference: 4-byte length-prefixed frames over blocking
// loopback sockets, each role in its own process.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "rig.h"

namespace qelbench {

// Blocking loopback sockets, with TCP_NODELAY once connected.
sockaddr_in LoopbackAddress(uint16_t port);
void NoDelay(int fd);
// A listening socket on a free loopback port; -1 on failure.
int ListenLoopback(int64_t& port);
int AcceptOne(int listener);
int ConnectLoopback(int64_t port);
// false when the peer is gone or an error came first.
bool WriteAll(int fd, const char* data, size_t size);
bool ReadExact(int fd, char* data, size_t size);

// A sender writing frames in 64 KiB writes and a receiver parsing them,
// connected directly or through a forwarder process that parses and re-sends
// every frame. With transform, every body is sealed and opened (Seal/Open).
Rig TcpThroughputRig(bool relay, bool transform);

// 100-byte ping-pong with TCP_NODELAY.
Rig TcpPingRig();

}  // namespace qelbench
