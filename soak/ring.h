// The loopback soak: a ring of `qel node` processes with chords, one node
// sending directed messages to another at a steady rate while the others are
// killed and restarted in turn.
#pragma once

#include <string>

namespace soak {

struct RingOptions {
  std::string qel;  // the `qel` binary
  int nodes = 12;
  double seconds = 60;     // of sending
  int rate = 200;          // messages a second
  int killEveryMs = 2000;  // one node killed this often
  int downMs = 1000;       // and restarted this long after
  int confirmTimeoutMs = 1000;
  int confirmRetry = 5;
  long maxRssMiB = 64;     // 0: not checked
  int drainSeconds = 120;  // for the messages still on their way
  unsigned seed = 0;       // 0: from the clock
};

// Runs the soak and prints its figures; 0 when every message arrived exactly
// once, nothing crashed and no node outgrew the memory bound.
int RunRing(const RingOptions& options);

}  // namespace soak
