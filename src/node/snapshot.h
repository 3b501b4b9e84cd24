// A node's state gathered into the plain values the host sees.
#pragma once

#include <qel/snapshot.h>

namespace qel {

struct NodeState;

// node's state now. Costs a walk of its links, known nodes and transfers: nothing that
// grows with the traffic it carried.
NodeSnapshot TakeSnapshot(NodeState& node);

}  // namespace qel
