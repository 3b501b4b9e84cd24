// The way in: duplicates, confirmation, decoding, dispatch, routes, relaying.
#pragma once

#include <cstdint>
#include <string>

#include "protocol/message.h"

namespace qel {

struct RoutingNode;

// The confirmation of message id, addressed to its sender.
typMessage MakeConfirm(const std::string& destination, const std::string& id);

// Handles one complete message that arrived on connection conn.
void ProcessMessage(RoutingNode& node, typMessage&& message, int32_t conn);

}  // namespace qel
