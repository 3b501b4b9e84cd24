// A node that knows many others, the size of a large overlay, without the
// traffic it would take to learn them.
#pragma once

#include <string>

#include <qel/node.h>

#include "core/new_id.h"
#include "net/event_loop.h"
#include "node/module.h"
#include "node/node_access.h"

namespace qelbench {

inline void AddKnownNodes(qel::cQEL& node, int count) {
  auto& shared = *qel::TheModule().Slot(qel::detail::NodeAccess::SlotIndex(node));
  for (int i = 0; i < count; ++i) {
    const std::string id = qel::NewID();
    qel::NodeEntry& entry = shared.NodeCache[static_cast<size_t>(shared.NodeCache.FindOrAdd(id))];
    entry.SetStrings(
        {.ID = id,
         .Name = "node-" + std::to_string(i),
         .Address = "10.0.0." + std::to_string(i % 250) + ":" + std::to_string(4000 + i)});
    entry.InfoTick = qel::TickCount();
  }
}

}  // namespace qelbench
