// Messages awaiting a delivery confirmation, shared by every node.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "net/link_id.h"

namespace qel {

struct RoutingNode;

struct PendingPacket {
  std::string Text;
  LinkId ViaConn;
  std::string MsgType;
  std::string Destination;
  std::string ID;
  bool Sent = false;
  int64_t SentTick = 0;
  int32_t SendCount = 0;
};

// The most messages the queue holds, for all nodes together.
constexpr size_t kMaxPendingConfirmations = 4096;

// Queues a confirmable message; it is written now unless an earlier one to
// the same destination is still unconfirmed. When the queue is full the
// oldest message is given up and reported through its node's Error event
// (which may run the loop).
void QueueConfirmable(RoutingNode& node, PendingPacket packet);

// A CONFIRM for message id arrived from destination: settle it and release
// the next message queued for that destination.
void ConfirmReceived(RoutingNode& node, const std::string& destination, const std::string& id);

// Resends what waited past node's confirmTimeout and gives up on what was
// sent confirmRetry + 1 times. Every node with confirmation on scans the
// whole shared queue with its own timeout and retry count, as other nodes do.
void ScanConfirmations(RoutingNode& node);

// Forgets node's messages, as it shuts down; what waited behind them for the
// same destination is written now. Raises no events.
void DropConfirmations(const RoutingNode& node);

// Test view of the queue.
size_t PendingCount();

}  // namespace qel
