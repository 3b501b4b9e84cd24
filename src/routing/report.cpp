#include "routing/report.h"

#include "core/debug_log.h"
#include "core/fault.h"
#include "routing/routing_node.h"

namespace qel {

void ReportError(RoutingNode& node, std::string strMessage, std::string nodeID) {
  if (TheDebugLog().Enabled()) {
    TheDebugLog().Write(nodeID.empty() ? strMessage : strMessage + " [NodeID: " + nodeID + "]");
  }
  node.RaiseError(std::move(strMessage), std::move(nodeID));
}

void ReportCurrentFault(RoutingNode& node) {
  ReportError(node, DescribeCurrentFault());
}

}  // namespace qel
