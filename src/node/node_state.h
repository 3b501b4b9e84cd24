// The state each node owns. It lives in the node's slot for the node's whole
// life; the subsystems receive it, or the part of it they know, by reference.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "files/fetch.h"
#include "files/sharing.h"
#include "files/transfer.h"
#include "routing/routing_node.h"
#include "rpc/rpc.h"
#include "users/users.h"

namespace qel {

class cQEL;

struct NodeState final : RoutingNode, TransferHost, FetchHost {
  // Registers the handlers of the subsystems' message types and of MSG.
  NodeState();

  int32_t FilePacketBytes = 0;

  // Shares, the answers waited for, transfers.
  FileSharing Files;
  // This node's windowed fetches, and what they run with.
  FetchTable Fetches;
  FetchSettings FetchConfig;

  // Users: the local account is added at creation.
  UserState Users;
  std::string LocalAccount;

  // Remote procedure calls: the host's bindings and their pending calls.
  RpcBindings Rpc;

  // The link whose ConnectionEstab is being raised; 0 outside that handler.
  LinkId EstablishingLink;

  // The node object its events are raised on; null once it has shut down.
  cQEL* Owner = nullptr;

  // Who sees every event after the host's handler, by number.
  std::vector<std::pair<int32_t, std::function<void(const typEvent&)>>> Observers;
  int32_t LastObserver = 0;
  // Events raised since the node was created, watched or not.
  int64_t EventsRaised = 0;

  // What the link table reports.
  bool Alive() const override { return Owner != nullptr; }
  bool OnLinkRequest(const std::string& sourceIP) override;
  void OnLinkUp(LinkId link, LinkKind kind, const std::string& sourceIP) override;
  void OnLinkDown(LinkId link, const std::string& address, const std::string& nodeID) override;
  void OnLinkMessage(LinkId link, typMessage&& message) override;
  void OnLinkMessage(LinkId link, const PackedMessage& message) override;
  void OnLinkFault(const std::string& text) override;

  // What routing hands up.
  void RaiseError(std::string strMessage, std::string nodeID) override;
  void ChatReceived(std::string& body, std::string& type, std::string& source) override;

  // What file transfer hands up.
  bool FileRequest(std::string resource, std::string fullPath, std::string asker, std::string reqID,
                   std::vector<typQELRange> ranges, std::string metadata) override;
  void FileReceived(std::string reqID, std::string data, typQELRange range, enmFileStatus status,
                    std::string metadata) override;

  // What fetching hands up.
  void FetchProgress(std::string fetchID, int64_t done, int64_t total) override;
  void FetchFinished(std::string fetchID, enmFileStatus status, std::string reason) override;
};

}  // namespace qel
