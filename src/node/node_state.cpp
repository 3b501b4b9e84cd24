#include "node/node_state.h"

#include <utility>

#include "files/sharing.h"
#include "net/links.h"
#include "node/events.h"
#include "routing/discovery.h"
#include "routing/incoming.h"
#include "routing/report.h"

namespace qel {

NodeState::NodeState() {
  RegisterFileHandlers(Handlers, Files, Fetches, *this, FilePacketBytes);
  RegisterUserHandlers(Handlers, Users);
  RegisterRpcHandlers(Handlers, Rpc);
  Handlers.Register("MSG", [this](RoutingNode&, typMessage& message, const Arrival& from) {
    std::string body = from.keepBody ? message.Body : std::move(message.Body);
    std::string type = GetSingleField(message.Fields, "Type");
    std::string source = from.source;
    ChatReceived(body, type, source);
  });
}

bool NodeState::OnLinkRequest(const std::string& sourceIP) {
  return RaiseConnectionReq(*this, sourceIP);
}

void NodeState::OnLinkUp(LinkId link, LinkKind, const std::string& sourceIP) {
  // Whoever dialled, both ends announce themselves, so each learns the
  // other's identifier and can reach it on this link.
  Connected = links::HasOpenLink(*this);
  if (announceSelf) SendInfo(*this, "BROADCAST", link);
  Fetches.OnLinkUp();
  if (!Alive()) return;
  const LinkId outer = std::exchange(EstablishingLink, link);
  RaiseConnectionEstab(*this, sourceIP);
  EstablishingLink = outer;
}

void NodeState::OnLinkDown(LinkId, const std::string& address, const std::string& nodeID) {
  RaiseConnectionClosed(*this, address, nodeID);
  Connected = links::HasOpenLink(*this);
}

void NodeState::OnLinkMessage(LinkId link, typMessage&& message) {
  ProcessMessage(*this, std::move(message), link);
}

void NodeState::OnLinkMessage(LinkId link, const PackedMessage& message) {
  ProcessMessage(*this, message, link);
}

void NodeState::OnLinkFault(const std::string& text) {
  ReportError(*this, text);
}

void NodeState::ChatReceived(std::string& body, std::string& type, std::string& source) {
  // Chat goes straight to the host; an ERROR is the sender's fault report.
  if (type == "ERROR") {
    ReportError(*this, std::move(body), std::move(source));
  } else {
    RaiseMessageReceived(*this, body, type, source);
  }
}

void NodeState::RaiseError(std::string strMessage, std::string nodeID) {
  RaiseErrorEvent(*this, std::move(strMessage), std::move(nodeID));
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
