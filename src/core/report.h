// Reporting a fault to the host.
#pragma once

#include <exception>
#include <string>

namespace qel {

struct NodeState;

// Writes a debug line (with " [NodeID: id]" when nodeID is given) and raises
// the node's Error event.
void ReportError(NodeState& node, std::string strMessage, std::string nodeID = {});

// "Error <number>: <description>" for a fault caught in a public method or a
// handler: QelErrors keep their numbers, running out of memory is 7, anything
// else is reported with number 5 (an invalid call) and its text.
std::string DescribeFault(const std::exception& fault);

// Reports the exception being handled (call from inside a catch block).
void ReportCurrentFault(NodeState& node);

}  // namespace qel
