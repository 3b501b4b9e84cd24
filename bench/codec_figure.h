// The per-message cost of QEL's codec against a length-prefixed frame, timed
// in one process.
#pragma once

#include "harness.h"

namespace qelbench {

// Runs in a child: after a warm-up, reports runs lines per case
//   "codec case=<name> ns=<ns per message>"
// for the cases qel-plain, frame-plain (serialise + parse), qel-body and
// frame-body (body encode + decode with compression and encryption), then
// "done".
void CodecChild(Channel& channel, int runs);

}  // namespace qelbench
