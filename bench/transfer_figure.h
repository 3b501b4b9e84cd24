// File transfer between two `qel node` processes, beside the same bytes
// sent over plain TCP by two processes that read and write the same files,
// and through a third `qel node` relaying between them.
#pragma once

#include <cstdint>
#include <string>

namespace qelbench {

// Which of the transfer figures to print.
struct TransferParts {
  bool whole = true;
  bool range = true;
  bool relayed = true;
};

// Prints "file transfer whole <size>: qel … MB/s (±…)  qel-tls … MB/s (±…)
// tcp … MB/s (±…)" (qel-tls: both nodes with --secure require) with
// the nodes' peak resident memory, and the same for a 100 MiB range from the
// middle of the file. The relayed figure fetches the whole file through a
// third node, each run taking turns with a direct transfer, and prints a line
// per run, then the medians: both rates, their ratio and the nodes' peak
// resident memory, the relay's beside its target. A transfer that fails, or
// leaves a file that is not the source's, prints as failed with its reason.
// The files live in folder and are removed afterwards.
void TransferFigures(const std::string& qelBinary, const std::string& folder, int64_t bytes,
                     int runs, const TransferParts& parts);

}  // namespace qelbench
