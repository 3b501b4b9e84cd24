#include "node/node_state.h"

#include <utility>

#include "files/sharing.h"
#include "net/connections.h"
#include "node/events.h"
#include "routing/discovery.h"
#include "routing/incoming.h"
#include "routing/report.h"

namespace qel {

bool NodeState::OnLinkRequest(const std::string& sourceIP) {
  return RaiseConnectionReq(*this, sourceIP);
}

void NodeState::OnLinkUp(int32_t conn, LinkKind, const std::string& sourceIP) {
  // Whoever dialled, both ends announce themselves, so each learns the
  // other's identifier and can reach it on this link.
  Connected = Connections::Get().HasOpenLink(*this);
  if (announceSelf) SendInfo(*this, "BROADCAST", conn);
  Fetches.OnLinkUp();
  if (!Alive()) return;
  const int32_t outer = std::exchange(EstablishingLink, conn);
  RaiseConnectionEstab(*this, sourceIP);
  EstablishingLink = outer;
}

void NodeState::OnLinkDown(int32_t, const std::string& address, const std::string& nodeID) {
  RaiseConnectionClosed(*this, address, nodeID);
  Connected = Connections::Get().HasOpenLink(*this);
}

void NodeState::OnLinkMessage(int32_t conn, typMessage&& message) {
  ProcessMessage(*this, std::move(message), conn);
}

void NodeState::OnLinkFault(const std::string& text) {
  ReportError(*this, text);
}

void NodeState::RaiseError(std::string strMessage, std::string nodeID) {
  RaiseErrorEvent(*this, std::move(strMessage), std::move(nodeID));
}

void NodeState::Deliver(typMessage& message, int32_t conn, const std::string& source,
                        bool keepBody) {
  if (message.MsgType == "MSG") {
    std::string kind = GetSingleField(message.Fields, "Type");
    std::string body = keepBody ? message.Body : std::move(message.Body);
    if (kind == "ERROR") {
      ReportError(*this, std::move(body), source);
    } else {
      RaiseMessageReceived(*this, std::move(body), std::move(kind), source);
    }
    return;
  }
  if (message.MsgType == "GET") {
    OnGet(*this, Files, *this, message, source, FilePacketBytes, conn);
    return;
  }
  if (message.MsgType == "FILE") {
    if (Fetches.OnPiece(message, source, message.Body)) return;
    OnFilePiece(*this, Files, *this, message, source,
                keepBody ? message.Body : std::move(message.Body));
    return;
  }
  // A fetch's answers are the fetch's; any other goes to the question slots.
  if (message.MsgType == "FILEINFO" && Fetches.OnInfo(message, source)) return;
  if (HandleFileMessage(*this, Files, message, source)) return;
  if (HandleUserMessage(*this, Users, message, source)) return;
  if (HandleRpcMessage(*this, Rpc, message, source)) return;
  // Other types are ignored without a reply.
}

bool NodeState::FileRequest(std::string resource, std::string fullPath, std::string asker,
                            std::string reqID, std::vector<typQELRange> ranges,
                            std::string metadata) {
  return RaiseFileRequest(*this, std::move(resource), std::move(fullPath), std::move(asker),
                          std::move(reqID), std::move(ranges), std::move(metadata));
}

void NodeState::FileReceived(std::string reqID, std::string data, typQELRange range,
                             enmFileStatus status, std::string metadata) {
  RaiseFileReceived(*this, std::move(reqID), std::move(data), range, status, std::move(metadata));
}

void NodeState::FetchProgress(std::string fetchID, int64_t done, int64_t total) {
  RaiseFetchProgress(*this, std::move(fetchID), done, total);
}

void NodeState::FetchFinished(std::string fetchID, enmFileStatus status, std::string reason) {
  RaiseFetchFinished(*this, std::move(fetchID), status, std::move(reason));
}

}  // namespace qel
