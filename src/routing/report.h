// Reporting a fault to the host.
#pragma once

#include <string>
#include <string_view>

#include <qel/log.h>

#include "core/stats.h"

namespace qel {

struct RoutingNode;

// Writes a debug line (with " [NodeID: id]" when nodeID is given) and raises
// the node's Error event.
void ReportError(RoutingNode& node, std::string strMessage, std::string nodeID = {});

// Counts a refusal and reports it, at most once a minute for each reason
// and node, so a flood of refused requests is said once, not once each.
void ReportRefusal(RoutingNode& node, Refusal reason, std::string strMessage,
                   std::string nodeID = {});

// Logs a refusal at level, with its reason and the peer's node ID when given; neither counts
// nor raises it.
void LogRefusal(const RoutingNode& node, Refusal reason, LogLevel level,
                std::string_view strMessage, std::string_view nodeID = {});

// Reports the exception being handled (call from inside a catch block).
void ReportCurrentFault(RoutingNode& node);

}  // namespace qel
