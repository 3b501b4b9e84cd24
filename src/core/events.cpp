#include "core/events.h"

#include <qel/node.h>

#include "core/node_state.h"

namespace qel {
namespace {

template <typename Handler, typename... Args>
void Raise(NodeState& node, Handler cQEL::*event, Args&... args) {
  if (!node.Owner || !(node.Owner->*event)) return;
  auto handler = node.Owner->*event;
  handler(args...);
}

}  // namespace

void RaiseMessageReceived(NodeState& node, std::string strMessage, std::string strType,
                          std::string nodeID) {
  Raise(node, &cQEL::MessageReceived, strMessage, strType, nodeID);
}

bool RaiseConnectionReq(NodeState& node, std::string SourceIP) {
  bool Cancel = false;
  Raise(node, &cQEL::ConnectionReq, SourceIP, Cancel);
  return Cancel;
}

void RaiseConnectionEstab(NodeState& node, std::string SourceIP) {
  Raise(node, &cQEL::ConnectionEstab, SourceIP);
}

void RaiseConnectionClosed(NodeState& node, std::string SourceIP, std::string nodeID) {
  Raise(node, &cQEL::ConnectionClosed, SourceIP, nodeID);
}

}  // namespace qel
