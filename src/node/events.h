// Raising a node's events. Each handler is copied before it runs, so a
// handler that replaces itself or destroys its node object stays safe; a node
// that has shut down raises nothing. A handler that throws is reported on
// stderr (and in the debug log) and the event counts as handled.
#pragma once

#include <string>
#include <vector>

#include <qel/types.h>

namespace qel {

struct NodeState;

void RaiseMessageReceived(NodeState& node, std::string& strMessage, std::string& strType,
                          std::string& nodeID);
void RaiseErrorEvent(NodeState& node, std::string strMessage, std::string nodeID);
// Returns true when the host cancelled the request.
bool RaiseConnectionReq(NodeState& node, std::string SourceIP);
void RaiseConnectionEstab(NodeState& node, std::string SourceIP);
void RaiseConnectionClosed(NodeState& node, std::string SourceIP, std::string nodeID);
// Returns true when the host takes the request over (TakeNoAction).
bool RaiseFileRequest(NodeState& node, std::string Resource, std::string fullPath,
                      std::string nodeID, std::string ReqID, std::vector<typQELRange> Range,
                      std::string Metadata);
void RaiseFileReceived(NodeState& node, std::string ReqID, std::string strData, typQELRange Range,
                       enmFileStatus FileStatus, std::string Metadata);
void RaiseFetchProgress(NodeState& node, std::string FetchID, int64_t BytesDone,
                        int64_t BytesTotal);
void RaiseFetchFinished(NodeState& node, std::string FetchID, enmFileStatus FileStatus,
                        std::string Reason);

}  // namespace qel
