#include "routing/confirm.h"

#include <memory>
#include <vector>

#include "core/module.h"
#include "core/report.h"
#include "net/event_loop.h"
#include "routing/transmit.h"

namespace qel {
namespace {

constexpr int32_t kConfirmIntervalMs = 500;

struct Entry {
  PendingPacket packet;
  std::weak_ptr<NodeState> owner;  // whose routes the writes follow
};

struct Queue {
  std::vector<Entry> entries;
  Timer timer{[] { Tick(); }};

  static void Tick();
};

Queue& TheQueue() {
  static Queue* queue = new Queue;
  return *queue;
}

void Write(Entry& entry, NodeState& fallback) {
  auto owner = entry.owner.lock();
  NodeState& node = owner ? *owner : fallback;
  Transmit(node, entry.packet.Text, -1, entry.packet.ViaConn, entry.packet.Destination);
  entry.packet.Sent = true;
  entry.packet.SentTick = TickCount();
  ++entry.packet.SendCount;
}

bool CanSendNow(const std::string& destination) {
  if (destination == "BROADCAST") return true;
  for (const Entry& e : TheQueue().entries) {
    if (e.packet.Destination == destination) return false;
  }
  return true;
}

// One pass over the queue under node's settings; true when it gave up on a
// message (the queue changed, so the caller scans again).
bool ScanOnce(NodeState& node) {
  auto& entries = TheQueue().entries;
  const int64_t now = TickCount();
  for (size_t i = 0; i < entries.size(); ++i) {
    PendingPacket& p = entries[i].packet;
    if (p.SentTick <= 0 || now - p.SentTick < node.confirmTimeout) continue;
    if (p.SendCount >= int64_t{node.confirmRetry} + 1) {
      std::string destination = p.Destination, id = p.ID;
      ReportError(node,
                  p.MsgType + " packet [ID: " + id + "] could not be delivered to " + destination,
                  destination);
      ConfirmReceived(node, destination, id);
      return true;
    }
    Write(entries[i], node);
  }
  return false;
}

void Queue::Tick() {
  Module& module = TheModule();
  // Every node with confirmation on scans the whole shared queue with its
  // own timeout and retry count, as other nodes do.
  for (int32_t slot = 1; slot <= module.SlotCount(); ++slot) {
    std::shared_ptr<NodeState> node = module.Slot(slot);
    if (!node->confirmMode) continue;
    while (node->Owner && ScanOnce(*node)) {
    }
  }
}

}  // namespace

void QueueConfirmable(NodeState& node, PendingPacket packet) {
  const bool now = CanSendNow(packet.Destination);
  auto& entries = TheQueue().entries;
  entries.push_back({std::move(packet), node.weak_from_this()});
  if (now) Write(entries.back(), node);
}

void ConfirmReceived(NodeState& node, const std::string& destination, const std::string& id) {
  auto& entries = TheQueue().entries;
  for (size_t i = 0; i < entries.size(); ++i) {
    const PendingPacket& p = entries[i].packet;
    if (p.ID == id && p.Destination == destination && p.Sent) {
      entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(i));
      for (Entry& next : entries) {
        if (next.packet.Destination == destination) {
          Write(next, node);
          break;
        }
      }
      return;
    }
  }
}

void UpdateConfirmTimer() {
  Module& module = TheModule();
  bool any = false;
  for (int32_t slot = 1; slot <= module.SlotCount() && !any; ++slot) {
    any = module.Slot(slot)->confirmMode;
  }
  auto& timer = TheQueue().timer;
  if (any && !timer.Enabled()) timer.SetInterval(kConfirmIntervalMs);
  timer.Enable(any);
}

size_t PendingCount() {
  return TheQueue().entries.size();
}

}  // namespace qel
