// A message exactly as a node sends it, for the codec benchmarks.
#pragma once

#include <qel/node.h>

#include "protocol/message.h"

namespace qelbench {

// A 100-byte MSG made the way cQEL::SendMessage makes it and stamped by node
// (initialised, with its own settings) for a node it does not know: every
// header field and the encoded body, ready for SerialiseMessage.
qel::typMessage StampedMessage(qel::cQEL& node);

}  // namespace qelbench
