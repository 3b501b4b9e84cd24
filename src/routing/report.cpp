#include "routing/report.h"

#include "core/debug_log.h"
#include "core/fault.h"
#include "core/log.h"
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
  const bool quiet = said != 0 && now - said < kQuietMs;
  // The log hears of every refusal; those the quiet minute keeps from the host go to debug,
  // so a flood of them cannot flood the log at info.
  LogRefusal(node, reason, quiet ? LogLevel::Debug : LogLevel::Info, strMessage, nodeID);
  if (quiet) return;
  said = now == 0 ? 1 : now;
  ReportError(node, std::move(strMessage), std::move(nodeID));
}

void LogRefusal(const RoutingNode& node, Refusal reason, LogLevel level,
                std::string_view strMessage, std::string_view nodeID) {
  Log(level, node.Name, [&] {
    std::string line(strMessage);
    line.append(" [refused: ").append(RefusalName(reason)).append("]");
    if (!nodeID.empty()) line.append(" [NodeID: ").append(nodeID).append("]");
    return line;
  });
}

void ReportCurrentFault(RoutingNode& node) {
  std::string text = DescribeCurrentFault();
  Log(LogLevel::Error, node.Name, [&] { return text; });
  ReportError(node, std::move(text));
}

}  // namespace qel
