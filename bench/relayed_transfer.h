// A file fetched through a relay: three `qel node` processes, the serving
// and the fetching node linked only to the relay between them.
#pragma once

#include <cstdint>
#include <string>

#include "harness.h"

namespace qelbench {

// Two nodes linked directly, one sharing the file the other fetches.
struct DirectPair {
  Child* server = nullptr;
  Child* client = nullptr;
  std::string serverID;
  std::string failure;  // set: the pair is not there, and its figure shows this
};

// Fetches the whole of share's "big" (bytes long, a copy of source) through a
// relay into target, each run taking turns with a direct transfer by the
// pair's client into the same target. Prints a line per
// run and then the medians: both rates, their ratio, and the nodes' peak
// resident memory, the ratio and the relay's memory beside their targets. A
// transfer that fails, or leaves a file that is not the source's, prints as
// failed with its reason; the next run starts fresh nodes.
void RelayedFigure(const DirectPair& pair, const std::string& qelBinary, const std::string& share,
                   const std::string& source, const std::string& target, int64_t bytes, int runs);

}  // namespace qelbench
