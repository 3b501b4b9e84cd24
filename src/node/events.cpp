#include "node/events.h"

#include <qel/node.h>

#include "core/fault.h"
#include "node/node_state.h"

namespace qel {
namespace {

template <typename Handler, typename... Args>
void Raise(NodeState& node, const char* name, Handler cQEL::*event, Args&... args) {
  if (!node.Owner) return;
  // A copy: the handler may replace itself or destroy the node object.
  const Handler handler = node.Owner->*event;
  RunHandler(name, handler, args...);
}

}  // namespace

void RaiseMessageReceived(NodeState& node, std::string& strMessage, std::string& strType,
                          std::string& nodeID) {
  Raise(node, "MessageReceived", &cQEL::MessageReceived, strMessage, strType, nodeID);
}

void RaiseErrorEvent(NodeState& node, std::string strMessage, std::string nodeID) {
  Raise(node, "Error", &cQEL::Error, strMessage, nodeID);
}

bool RaiseConnectionReq(NodeState& node, std::string SourceIP) {
  bool Cancel = false;
  Raise(node, "ConnectionReq", &cQEL::ConnectionReq, SourceIP, Cancel);
  return Cancel;
}

void RaiseConnectionEstab(NodeState& node, std::string SourceIP) {
  Raise(node, "ConnectionEstab", &cQEL::ConnectionEstab, SourceIP);
}

void RaiseConnectionClosed(NodeState& node, std::string SourceIP, std::string nodeID) {
  Raise(node, "ConnectionClosed", &cQEL::ConnectionClosed, SourceIP, nodeID);
}

bool RaiseFileRequest(NodeState& node, std::string Resource, std::string fullPath,
                      std::string nodeID, std::string ReqID, std::vector<typQELRange> Range,
                      std::string Metadata) {
  bool TakeNoAction = false;
  Raise(node, "FileRequest", &cQEL::FileRequest, Resource, fullPath, nodeID, ReqID, Range, Metadata,
        TakeNoAction);
  return TakeNoAction;
}

void RaiseFileReceived(NodeState& node, std::string ReqID, std::string strData, typQELRange Range,
                       enmFileStatus FileStatus, std::string Metadata) {
  Raise(node, "FileReceived", &cQEL::FileReceived, ReqID, strData, Range, FileStatus, Metadata);
}

void RaiseFetchProgress(NodeState& node, std::string FetchID, int64_t BytesDone,
                        int64_t BytesTotal) {
  Raise(node, "FetchProgress", &cQEL::FetchProgress, FetchID, BytesDone, BytesTotal);
}

void RaiseFetchFinished(NodeState& node, std::string FetchID, enmFileStatus FileStatus,
                        std::string Reason) {
  Raise(node, "FetchFinished", &cQEL::FetchFinished, FetchID, FileStatus, Reason);
}

}  // namespace qel
