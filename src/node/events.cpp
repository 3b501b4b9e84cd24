#include "node/events.h"

#include <algorithm>

#include <qel/node.h>

#include "core/fault.h"
#include "net/links.h"
#include "node/node_state.h"

namespace qel {
namespace {

template <typename Handler, typename... Args>
void Raise(NodeState& node, const char* name, Handler cQEL::*event, Args&... args) {
  if (!node.Owner) return;
  ++node.EventsRaised;
  // A copy: the handler may replace itself or destroy the node object.
  const Handler handler = node.Owner->*event;
  RunHandler(name, handler, args...);
}

bool Observed(const NodeState& node) {
  return node.Owner && !node.Observers.empty();
}

// Runs after the handler, so observers see what it left in the parameters.
void Notify(NodeState& node, const char* name, std::vector<typEventField> fields) {
  if (!Observed(node)) return;  // the handler may have shut the node down
  const typEvent event{name, std::move(fields)};
  // By position, not over a copy of the list (one per event on a busy node): an observer
  // may add or remove observers, and the walk goes on after it wherever it now stands.
  auto& observers = node.Observers;
  for (size_t i = 0; i < observers.size() && node.Owner; ++i) {
    const auto entry = observers[i];  // it may remove itself while it runs
    RunHandler("event observer", entry.second, event);
    const auto at = std::find_if(observers.begin(), observers.end(),
                                 [&](const auto& other) { return other.first == entry.first; });
    i = at != observers.end() ? static_cast<size_t>(at - observers.begin()) : i - 1;
  }
}

}  // namespace

void RaiseMessageReceived(NodeState& node, std::string& strMessage, std::string& strType,
                          std::string& nodeID) {
  Raise(node, "MessageReceived", &cQEL::MessageReceived, strMessage, strType, nodeID);
  if (Observed(node)) {
    Notify(node, "MessageReceived",
           {{"strMessage", strMessage}, {"strType", strType}, {"nodeID", nodeID}});
  }
}

void RaiseErrorEvent(NodeState& node, std::string strMessage, std::string nodeID) {
  Raise(node, "Error", &cQEL::Error, strMessage, nodeID);
  if (Observed(node)) Notify(node, "Error", {{"strMessage", strMessage}, {"nodeID", nodeID}});
}

bool RaiseConnectionReq(NodeState& node, std::string SourceIP) {
  bool Cancel = false;
  Raise(node, "ConnectionReq", &cQEL::ConnectionReq, SourceIP, Cancel);
  if (Observed(node)) Notify(node, "ConnectionReq", {{"SourceIP", SourceIP}});
  return Cancel;
}

void RaiseConnectionEstab(NodeState& node, std::string SourceIP) {
  Raise(node, "ConnectionEstab", &cQEL::ConnectionEstab, SourceIP);
  if (Observed(node)) {
    const typLinkInfo link = links::Info(node.EstablishingLink);
    Notify(node, "ConnectionEstab",
           {{"SourceIP", SourceIP}, {"Secure", link.isSecure}, {"PeerKey", link.PeerKey}});
  }
}

void RaiseConnectionClosed(NodeState& node, std::string SourceIP, std::string nodeID) {
  Raise(node, "ConnectionClosed", &cQEL::ConnectionClosed, SourceIP, nodeID);
  if (Observed(node)) Notify(node, "ConnectionClosed", {{"SourceIP", SourceIP}, {"nodeID", nodeID}});
}

bool RaiseFileRequest(NodeState& node, std::string Resource, std::string fullPath,
                      std::string nodeID, std::string ReqID, std::vector<typQELRange> Range,
                      std::string Metadata) {
  bool TakeNoAction = false;
  Raise(node, "FileRequest", &cQEL::FileRequest, Resource, fullPath, nodeID, ReqID, Range, Metadata,
        TakeNoAction);
  if (Observed(node)) {
    Notify(node, "FileRequest",
           {{"Resource", Resource}, {"fullPath", fullPath}, {"nodeID", nodeID}, {"ReqID", ReqID},
            {"Range", Range}, {"Metadata", Metadata}});
  }
  return TakeNoAction;
}

void RaiseFileReceived(NodeState& node, std::string ReqID, std::string strData, typQELRange Range,
                       enmFileStatus FileStatus, std::string Metadata) {
  Raise(node, "FileReceived", &cQEL::FileReceived, ReqID, strData, Range, FileStatus, Metadata);
  if (Observed(node)) {
    Notify(node, "FileReceived",
           {{"ReqID", ReqID}, {"strData", strData}, {"Range", Range},
            {"FileStatus", int64_t{FileStatus}}, {"Metadata", Metadata}});
  }
}

void RaiseFetchProgress(NodeState& node, std::string FetchID, int64_t BytesDone,
                        int64_t BytesTotal) {
  Raise(node, "FetchProgress", &cQEL::FetchProgress, FetchID, BytesDone, BytesTotal);
  if (Observed(node)) {
    Notify(node, "FetchProgress",
           {{"FetchID", FetchID}, {"BytesDone", BytesDone}, {"BytesTotal", BytesTotal}});
  }
}

void RaiseFetchFinished(NodeState& node, std::string FetchID, enmFileStatus FileStatus,
                        std::string Reason) {
  Raise(node, "FetchFinished", &cQEL::FetchFinished, FetchID, FileStatus, Reason);
  if (Observed(node)) {
    Notify(node, "FetchFinished",
           {{"FetchID", FetchID}, {"FileStatus", int64_t{FileStatus}}, {"Reason", Reason}});
  }
}

}  // namespace qel
