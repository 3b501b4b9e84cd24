// The way in: duplicates, confirmation, decoding, dispatch, routes, relaying.
#pragma once

#include <cstdint>

#include "protocol/message.h"

namespace qel {

struct NodeState;

// Handles one complete message that arrived on connection conn.
void ProcessMessage(NodeState& node, typMessage&& message, int32_t conn);

}  // namespace qel
