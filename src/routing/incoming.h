// The way in: duplicates, confirmation, decoding, dispatch, routes, relaying.
#pragma once

#include <cstdint>
#include <string>

#include "net/link_id.h"
#include "protocol/message.h"

namespace qel {

struct RoutingNode;

// The confirmation of message id, addressed to its sender.
typMessage MakeConfirm(const std::string& destination, const std::string& id);

// Handles one complete message that arrived on link conn.
void ProcessMessage(RoutingNode& node, typMessage&& message, LinkId conn);
// The same for one seen where it lies in the bytes of a read (valid until this returns):
// a record of its own is made only when a handler needs one.
void ProcessMessage(RoutingNode& node, const PackedMessage& message, LinkId conn);

}  // namespace qel
