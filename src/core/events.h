// Raising a node's events. Each handler is copied before it runs, so a
// handler that replaces itself or destroys its node object stays safe; a node
// that has shut down raises nothing.
#pragma once

#include <string>

namespace qel {

struct NodeState;

void RaiseMessageReceived(NodeState& node, std::string strMessage, std::string strType,
                          std::string nodeID);
// Returns true when the host cancelled the request.
bool RaiseConnectionReq(NodeState& node, std::string SourceIP);
void RaiseConnectionEstab(NodeState& node, std::string SourceIP);
void RaiseConnectionClosed(NodeState& node, std::string SourceIP, std::string nodeID);

}  // namespace qel
