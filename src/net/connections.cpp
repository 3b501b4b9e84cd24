#include "net/connections.h"

#include <algorithm>

#include <qel/error.h>
#include <qel/event_loop.h>
#include <qel/variant.h>

#include "core/events.h"
#include "core/module.h"
#include "core/report.h"
#include "core/text.h"
#include "routing/discovery.h"
#include "routing/incoming.h"

namespace qel {
namespace {

constexpr int32_t kUpkeepIntervalMs = 5000;

std::shared_ptr<NodeState> Lock(const std::weak_ptr<NodeState>& owner) {
  auto node = owner.lock();
  return node && node->Owner ? node : nullptr;
}

void DebugLine(std::string_view line) {
  auto& debug = TheModule().Debug;
  if (debug.Enabled()) debug.Write(line);
}

}  // namespace

Connections& Connections::Get() {
  static Connections* table = new Connections;  // sockets outlive static destruction
  return *table;
}

Connections::Connections() : conns_(1), upkeep_([this] { UpkeepTick(); }) {
  upkeep_.SetInterval(kUpkeepIntervalMs);
  upkeep_.Enable(true);
}

bool Connections::IsConnected(int32_t index) const {
  return index >= 1 && index < static_cast<int32_t>(conns_.size()) &&
         conns_[index]->sck->State() == SocketState::Connected;
}

int32_t Connections::GetFreeSocket(NodeState& node) {
  int32_t index = 0;
  for (int32_t i = 1; i < static_cast<int32_t>(conns_.size()); ++i) {
    Connection& c = *conns_[i];
    if (c.sck->State() == SocketState::Closed && !c.Maintain && c.draining == 0) {
      index = i;
      break;
    }
  }
  if (index == 0) {
    conns_.push_back(std::make_unique<Connection>());
    index = Count();
  }
  Connection& c = *conns_[index];
  c.Owner = node.weak_from_this();
  c.NodeID.clear();
  c.Address.clear();
  c.Maintain = false;
  c.Partial = MessageFeeder({.maxHeader = 65536, .maxMessage = node.maxMessage});
  c.inbox.clear();
  c.backlogFull = false;
  ++c.generation;
  Attach(index);
  return index;
}

void Connections::Attach(int32_t index) {
  Connection& c = *conns_[index];
  const uint64_t generation = c.generation;
  c.sck->SetHandlers({
      .onConnected =
          [this, index] {
            auto node = Lock(conns_[index]->Owner);
            if (!node) return;
            UpdateConnected(*node);
            if (node->announceSelf) SendInfo(*node, "BROADCAST", index);
          },
      .onData = [this, index,
                 generation](std::string_view data) { OnData(index, generation, data); },
      .onPeerClosed = [this, index] { CloseConnection(index, false); },
      .onError =
          [this, index](const std::error_code&) {
            if (auto node = Lock(conns_[index]->Owner)) node->SocketError = true;
          },
      .onSent = [](size_t n) { TheModule().Statistics.OutBytesAcc += static_cast<int64_t>(n); },
  });
}

void Connections::OnData(int32_t index, uint64_t generation, std::string_view data) {
  Connection& c = *conns_[index];
  auto node = Lock(c.Owner);
  if (!node) return;
  TheModule().Statistics.InBytesAcc += static_cast<int64_t>(data.size());
  if (TheModule().Debug.Enabled()) {
    DebugLine(">> INCOMING >>>>>>>>>>");
    DebugLine(data);
  }
  auto outcome =
      c.Partial.Feed(data, [&](typMessage&& message) { c.inbox.push_back(std::move(message)); });
  if (outcome != MessageFeeder::Outcome::Ok) {
    std::string peer = c.Address.empty() ? c.sck->RemoteHost() : c.Address;
    ReportError(*node, outcome == MessageFeeder::Outcome::HeaderTooLong
                           ? "Connection to " + peer + " closed: header longer than 65536 bytes"
                           : "Connection to " + peer + " closed: message longer than " +
                                 std::to_string(node->maxMessage) + " bytes");
    c.inbox.clear();
    CloseConnection(index, false);
    return;
  }
  // data is consumed: let the socket read on, so that a handler waiting for
  // an answer on this connection can receive it.
  c.sck->ResumeReading();
  ++c.draining;
  while (!c.inbox.empty() && c.generation == generation &&
         c.sck->State() == SocketState::Connected && node->Owner) {
    typMessage message = std::move(c.inbox.front());
    c.inbox.pop_front();
    DebugLine("** PROCESS ");
    ProcessMessage(*node, std::move(message), index);
  }
  --c.draining;
  // What is left belongs to a link that was closed or taken again.
  if (c.generation != generation) return;
  if (c.sck->State() != SocketState::Connected) c.inbox.clear();
}

bool Connections::ListenOnPort(NodeState& node, int32_t port) {
  size_t reuse = listeners_.size();
  for (size_t i = 0; i < listeners_.size(); ++i) {
    auto& entry = listeners_[i];
    if (entry.sck->State() != SocketState::Closed) {
      if (port != 0 && entry.sck->LocalPort() == port) {
        throw QelError(errors::kListenPortInUse, "ListenOnPort", "Listen port already in use");
      }
    } else if (reuse == listeners_.size()) {
      reuse = i;
    }
  }
  if (reuse == listeners_.size()) {
    listeners_.push_back({std::make_unique<Listener>([this, reuse](std::unique_ptr<Socket> s) {
                            OnAccept(reuse, std::move(s));
                          }),
                          {}});
  }
  auto& entry = listeners_[reuse];
  entry.Owner = node.weak_from_this();
  if (port < 0 || port > 65535 || entry.sck->Listen(static_cast<uint16_t>(port))) return false;
  node.Listening = true;
  // A node told to take any free port advertises the one it got.
  if (node.ListenPort == 0) node.ListenPort = entry.sck->LocalPort();
  return true;
}

void Connections::OnAccept(size_t listener, std::unique_ptr<Socket> socket) {
  auto node = Lock(listeners_[listener].Owner);
  if (!node) return;
  std::string source = socket->RemoteHost();
  if (RaiseConnectionReq(*node, source)) return;  // refused: the socket closes here
  if (!node->Owner || socket->State() != SocketState::Connected) return;
  int32_t index = GetFreeSocket(*node);
  conns_[index]->sck = std::move(socket);
  Attach(index);
  // The Connected flag is not updated here: classic nodes set it only when a
  // connection of their own completes or any of theirs closes.
  RaiseConnectionEstab(*node, source);
}

bool Connections::ConnectTo(NodeState& node, const std::string& address, bool maintain,
                            int32_t index) {
  if (Trim(address).empty()) return false;
  if (index == 0) index = GetFreeSocket(node);
  Connection& c = *conns_[index];
  c.Maintain = maintain;
  c.Address = address;
  std::string host = address;
  int32_t port = node.ListenPort;
  // Without a port the node dials its own listen port, as other nodes do.
  if (size_t colon = address.rfind(':'); colon != std::string::npos) {
    host = address.substr(0, colon);
    port = Variant(address.substr(colon + 1)).toInt32();
  }
  if (port < 0 || port > 65535) throw QelError(errors::kOverflow, "ConnectTo", "Overflow");
  const uint64_t generation = c.generation;
  c.Partial.Reset();
  c.inbox.clear();
  c.backlogFull = false;
  c.sck->Connect(std::string(Trim(host)), static_cast<uint16_t>(port));
  RunUntil(
      [&] {
        auto state = c.sck->State();
        return c.generation != generation || state == SocketState::Connected ||
               state == SocketState::Error;
      },
      node.Timeout);
  if (c.generation == generation && c.sck->State() == SocketState::Connected) return true;
  if (c.generation == generation) c.sck->Close();
  return false;
}

void Connections::CloseConnection(int32_t index, bool stopMaintaining) {
  Connection& c = *conns_[index];
  if (c.sck->State() == SocketState::Closed) return;
  if (stopMaintaining) c.Maintain = false;
  c.backlogFull = false;
  c.sck->Close();
  auto node = Lock(c.Owner);
  if (!node) return;
  RaiseConnectionClosed(*node, c.Address, c.NodeID);
  if (c.Maintain && node->Owner) Reconnect(index);
  UpdateConnected(*node);
}

void Connections::Reconnect(int32_t index) {
  Connection& c = *conns_[index];
  auto node = Lock(c.Owner);
  if (!node) return;
  std::string address = c.Address;
  try {
    if (ConnectTo(*node, address, true, index)) RaiseConnectionEstab(*node, address);
  } catch (...) {
    ReportCurrentFault(*node);
  }
}

void Connections::UpkeepTick() {
  for (int32_t i = 1; i < static_cast<int32_t>(conns_.size()); ++i) {
    Connection& c = *conns_[i];
    if (c.sck->State() == SocketState::Closed && c.Maintain) Reconnect(i);
  }
}

void Connections::UpdateConnected(NodeState& node) {
  node.Connected = false;
  for (int32_t i = 1; i < static_cast<int32_t>(conns_.size()); ++i) {
    if (conns_[i]->sck->State() == SocketState::Connected &&
        Lock(conns_[i]->Owner).get() == &node) {
      node.Connected = true;
      return;
    }
  }
}

int32_t Connections::ConnectionOfNode(std::string_view nodeID) const {
  if (nodeID == "BROADCAST") return 0;
  for (int32_t i = 1; i < static_cast<int32_t>(conns_.size()); ++i) {
    if (conns_[i]->NodeID == nodeID) return i;
  }
  return 0;
}

void Connections::Write(int32_t index, std::string_view text) {
  if (!IsConnected(index)) return;
  Connection& c = *conns_[index];
  if (c.backlogFull) return;
  if (TheModule().Debug.Enabled()) {
    DebugLine("<< OUTGOING <<<<<<<<<<");
    DebugLine(text);
  }
  c.sck->Send(text);
  // A peer that stops reading must not make this process hold everything
  // the network sends its way. Room for two whole messages of the largest
  // size plus a header keeps every legitimate burst.
  auto node = Lock(c.Owner);
  if (!node) return;
  const size_t limit = 2 * static_cast<size_t>(std::max<int64_t>(node->maxMessage, 0)) + 65536;
  if (c.sck->QueuedBytes() <= limit) return;
  c.backlogFull = true;
  // Closed from the loop: the writer may be in the middle of a flood or a
  // handler, and closing raises events.
  Post([this, index, generation = c.generation, limit] {
    CloseBacklogged(index, generation, limit);
  });
}

void Connections::CloseBacklogged(int32_t index, uint64_t generation, size_t limit) {
  Connection& c = *conns_[index];
  if (c.generation != generation || !c.backlogFull) return;
  c.backlogFull = false;
  if (c.sck->State() != SocketState::Connected) return;
  if (auto node = Lock(c.Owner)) {
    std::string peer = c.Address.empty() ? c.sck->RemoteHost() : c.Address;
    ReportError(*node, "Connection to " + peer + " closed: more than " + std::to_string(limit) +
                           " bytes waiting to be sent");
    // The handler may have shut the node down or closed the link itself.
    if (!node->Owner || c.generation != generation) return;
  }
  CloseConnection(index, false);
}

void Connections::WriteToAllExcept(int32_t except, std::string_view text) {
  for (int32_t i = 1; i < static_cast<int32_t>(conns_.size()); ++i) {
    if (i != except) Write(i, text);
  }
}

bool Connections::CloseListeners(NodeState& node) {
  bool any = false;
  for (auto& entry : listeners_) {
    if (entry.sck->State() != SocketState::Closed && Lock(entry.Owner).get() == &node) {
      entry.sck->Close();
      any = true;
    }
  }
  node.Listening = false;
  return any;
}

void Connections::CloseOwnedBy(NodeState& node) {
  for (int32_t i = 1; i < static_cast<int32_t>(conns_.size()); ++i) {
    if (conns_[i]->Owner.lock().get() == &node) CloseConnection(i, true);
  }
}

bool Connections::CloseAddress(const std::string& address) {
  bool any = false;
  for (int32_t i = 1; i < static_cast<int32_t>(conns_.size()); ++i) {
    if (conns_[i]->Address == address) {
      // Every element with the address counts, also one closed already (a
      // maintained link waiting to be re-dialled, say), as classic nodes count.
      conns_[i]->Maintain = false;
      any = true;
      CloseConnection(i, true);
    }
  }
  return any;
}

}  // namespace qel
