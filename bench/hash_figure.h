// The MD5 of a large file: QEL's streaming digest beside md5sum, timed in
// this process on the same file while it sits in the page cache.
#pragma once

#include <cstdint>
#include <string>

namespace qelbench {

// Prints "md5 of a <size> file: qel … MB/s (±…)  md5sum … MB/s (±…)". The
// file is written into folder and removed afterwards.
void HashFigure(const std::string& folder, int64_t bytes, int runs);

}  // namespace qelbench
