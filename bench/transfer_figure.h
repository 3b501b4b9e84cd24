// File transfer between two `qel node` processes, beside the same bytes
// sent over plain TCP by two processes that read and write the same files.
#pragma once

#include <cstdint>
#include <string>

namespace qelbench {

// Prints "file transfer whole <size>: qel … MB/s (±…)  tcp … MB/s (±…)" with
// the nodes' peak resident memory, and the same for a 100 MiB range from the
// middle of the file. The files live in folder and are removed afterwards.
void TransferFigures(const std::string& qelBinary, const std::string& folder, int64_t bytes,
                     int runs);

}  // namespace qelbench
