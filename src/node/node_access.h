// Internal access to a node object's slot index.
#pragma once

#include <qel/node.h>

namespace qel::detail {

struct NodeAccess {
  static int32_t& SlotIndex(cQEL& node) { return node.slotIndex; }
  static void DecrementSlot(cQEL& node) { --node.slotIndex; }
};

}  // namespace qel::detail
