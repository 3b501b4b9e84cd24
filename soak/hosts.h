// Many hosts on one machine: one `qel node` per network namespace, the
// namespaces joined by veth pairs as a random graph, directed and broadcast
// traffic flowing while links go down and up and nodes are killed.
#pragma once

#include <string>

namespace soak {

struct HostsOptions {
  std::string qel;  // the `qel` binary
  int hosts = 24;
  int keepAlive = 2;              // seconds, the nodes' keepAlive setting
  double seconds = 100;           // of traffic and faults
  int talkers = 4;                // the nodes that send; never killed
  int rate = 20;                  // directed messages a second from each talker
  int broadcastEveryMs = 1000;    // from each talker
  int downMs = 6000;              // a link stays down, a killed node stays dead, this long
  int gapMs = 1000;               // between one fault's recovery and the next fault
  double reconvergeSeconds = 20;  // a pair must talk again this long after the repair
  std::string secure = "off";     // the nodes' --secure
  long maxRssMiB = 64;            // 0: not checked
  unsigned seed = 0;
};

// Runs the soak and prints its figures; 0 when every check passed, or when
// namespaces cannot be made here (not root), which it reports as skipped.
int RunHosts(const HostsOptions& options);

}  // namespace soak
