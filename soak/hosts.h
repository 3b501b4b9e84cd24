// Several hosts on one machine: one `qel node` per network namespace, the
// namespaces joined by veth pairs on a bridge of their own, the nodes linked
// in a line so that messages and files must be relayed.
#pragma once

#include <string>

namespace soak {

struct HostsOptions {
  std::string qel;  // the `qel` binary
  int hosts = 5;
  int keepAlive = 2;  // seconds, the nodes' keepAlive setting
};

// Runs the checks and prints them; 0 when all passed, or when namespaces
// cannot be made here (not root), which it reports as skipped.
int RunHosts(const HostsOptions& options);

}  // namespace soak
