// Reporting a fault to the host.
#pragma once

#include <string>

namespace qel {

struct RoutingNode;

// Writes a debug line (with " [NodeID: id]" when nodeID is given) and raises
// the node's Error event.
void ReportError(RoutingNode& node, std::string strMessage, std::string nodeID = {});

// Reports the exception being handled (call from inside a catch block).
void ReportCurrentFault(RoutingNode& node);

}  // namespace qel
