#include "routing/report.h"

#include "core/debug_log.h"
#include "core/fault.h"
#include "net/event_loop.h"
#include "routing/routing_node.h"

namespace qel {

void ReportError(RoutingNode& node, std::string strMessage, std::string nodeID) {
  if (TheDebugLog().Enabled()) {
    TheDebugLog().Write(nodeID.empty() ? strMessage : strMessage + " [NodeID: " + nodeID + "]");
  }
  node.RaiseError(std::move(strMessage), std::move(nodeID));
}

void ReportRefusal(RoutingNode& node, Refusal reason, std::string strMessage, std::string nodeID) {
  node.Counters.Refused(reason);
  constexpr int64_t kQuietMs = 60000;
  int64_t& said = node.RefusalSaidAt[static_cast<size_t>(reason)];
  const int64_t now = TickCount();
  if (said != 0 && now - said < kQuietMs) return;
  said = now == 0 ? 1 : now;
  ReportError(node, std::move(strMessage), std::move(nodeID));
}

void ReportCurrentFault(RoutingNode& node) {
  ReportError(node, DescribeCurrentFault());
}

}  // namespace qel
