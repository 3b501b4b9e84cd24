// The process-wide table of connections and listening sockets, shared by all
// node objects. Indices are stable: elements are reused, never removed.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "net/event_loop.h"
#include "net/socket.h"
#include "protocol/feeder.h"

namespace qel {

struct NodeState;

struct Connection {
  std::unique_ptr<Socket> sck = std::make_unique<Socket>();
  std::weak_ptr<NodeState> Owner;
  std::string NodeID;   // the peer, once its INFO arrived
  std::string Address;  // what Connect was given, or what the peer advertised
  bool Maintain = false;
  MessageFeeder Partial;
  // Complete messages not yet processed. A handler that waits runs the loop
  // again, and the messages that arrive meanwhile on this same connection are
  // processed from here, in order, inside that wait.
  std::deque<typMessage> inbox;
  uint64_t generation = 0;  // bumped whenever the element is taken again
  int draining = 0;         // nesting depth of OnData: the element must not be taken again
  // The peer stopped reading and the queue passed its limit: nothing more is
  // queued and the connection is about to close.
  bool backlogFull = false;
};

class Connections {
 public:
  static Connections& Get();

  // Connection indices run from 1; 0 means "none".
  int32_t Count() const { return static_cast<int32_t>(conns_.size()) - 1; }
  Connection& At(int32_t index) { return *conns_[index]; }
  bool IsConnected(int32_t index) const;

  // Opens a listening socket for node; throws QelError -2147221501 when this
  // process already listens on the port.
  bool ListenOnPort(NodeState& node, int32_t port);
  // Dials address ("host:port", or a host and node's ListenPort) and waits up
  // to node's Timeout. index reuses an element, 0 takes a free one.
  bool ConnectTo(NodeState& node, const std::string& address, bool maintain, int32_t index = 0);
  // Closes one connection and raises ConnectionClosed on its owner; a
  // maintained one is dialled again at once.
  void CloseConnection(int32_t index, bool stopMaintaining);
  void Reconnect(int32_t index);
  void UpdateConnected(NodeState& node);

  // The first connection whose peer is nodeID, or 0.
  int32_t ConnectionOfNode(std::string_view nodeID) const;
  // Writes text to a connected socket; others are skipped silently.
  void Write(int32_t index, std::string_view text);
  void WriteToAllExcept(int32_t except, std::string_view text);

  // Closes node's listening sockets; true when it had one.
  bool CloseListeners(NodeState& node);
  // Closes every connection node owns.
  void CloseOwnedBy(NodeState& node);
  // Closes every connection to address, whoever owns it, and stops
  // maintaining it; true when any element held that address.
  bool CloseAddress(const std::string& address);

 private:
  Connections();
  int32_t GetFreeSocket(NodeState& node);
  void Attach(int32_t index);
  void OnData(int32_t index, uint64_t generation, std::string_view data);
  void OnAccept(size_t listener, std::unique_ptr<Socket> socket);
  void UpkeepTick();
  void CloseBacklogged(int32_t index, uint64_t generation, size_t limit);

  struct ListenerEntry {
    std::unique_ptr<Listener> sck;
    std::weak_ptr<NodeState> Owner;
  };
  std::vector<std::unique_ptr<Connection>> conns_;
  std::vector<ListenerEntry> listeners_;
  Timer upkeep_;
};

}  // namespace qel
