// Messages awaiting a delivery confirmation, shared by every node.
#pragma once

#include <cstdint>
#include <string>

namespace qel {

struct NodeState;

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
void QueueConfirmable(NodeState& node, PendingPacket packet);

// A CONFIRM for message id arrived from destination: settle it and release
// the next message queued for that destination.
void ConfirmReceived(NodeState& node, const std::string& destination, const std::string& id);

// Runs the retry timer while some node has confirmMode on.
void UpdateConfirmTimer();

// Test view of the queue.
size_t PendingCount();

}  // namespace qel
