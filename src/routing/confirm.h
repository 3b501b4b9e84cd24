// Messages awaiting a delivery confirmation, shared by every node.
#pragma once

#include <cstdint>
#include <string>

namespace qel {

struct RoutingNode;

struct PendingPacket {
  std::string Text;
  int32_t ViaConn = 0;
  std::string MsgType;
  std::string Destination;
  std::string ID;
  bool Sent = false;
  int64_t SentTick = 0;
  int32_t SendCount = 0;
};

// Queues a confirmable message; it is written now unless an earlier one to
// the same destination is still unconfirmed.
void QueueConfirmable(RoutingNode& node, PendingPacket packet);

// A CONFIRM for message id arrived from destination: settle it and release
// the next message queued for that destination.
void ConfirmReceived(RoutingNode& node, const std::string& destination, const std::string& id);

// Resends what waited past node's confirmTimeout and gives up on what was
// sent confirmRetry + 1 times. Every node with confirmation on scans the
// whole shared queue with its own timeout and retry count, as other nodes do.
void ScanConfirmations(RoutingNode& node);

// Test view of the queue.
size_t PendingCount();

}  // namespace qel
