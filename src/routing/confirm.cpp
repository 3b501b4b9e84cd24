#include "routing/confirm.h"

#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "net/event_loop.h"
#include "routing/report.h"
#include "routing/routing_node.h"
#include "routing/transmit.h"

namespace qel {
namespace {

struct Entry {
  PendingPacket packet;
  std::weak_ptr<LinkOwner> owner;  // whose routes the writes follow
};

struct Queue {
  std::deque<Entry> entries;
};

Queue& TheQueue() {
  static Queue* queue = new Queue;
  return *queue;
}

std::shared_ptr<RoutingNode> OwnerOf(const Entry& entry) {
  return std::static_pointer_cast<RoutingNode>(entry.owner.lock());
}

void Write(Entry& entry, RoutingNode& fallback) {
  auto owner = OwnerOf(entry);
  RoutingNode& node = owner ? *owner : fallback;
  Transmit(node, entry.packet.Text, {}, entry.packet.ViaConn, entry.packet.Destination);
  entry.packet.Sent = true;
  entry.packet.SentTick = TickCount();
  ++entry.packet.SendCount;
}

// A message to destination left the queue unconfirmed: the next one held
// behind it goes out now, along its own node's routes.
void ReleaseNext(const std::string& destination) {
  for (Entry& next : TheQueue().entries) {
    if (next.packet.Destination != destination) continue;
    if (auto owner = OwnerOf(next); owner && !next.packet.Sent) Write(next, *owner);
    return;
  }
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
bool ScanOnce(RoutingNode& node) {
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

}  // namespace

void QueueConfirmable(RoutingNode& node, PendingPacket packet) {
  auto& entries = TheQueue().entries;
  // Destinations that never confirm must not grow the queue without end.
  std::optional<Entry> dropped;
  if (entries.size() >= kMaxPendingConfirmations) {
    dropped = std::move(entries.front());
    entries.pop_front();
  }
  const bool now = CanSendNow(packet.Destination);
  entries.push_back({std::move(packet), node.weak_from_this()});
  if (now) Write(entries.back(), node);
  if (!dropped) return;
  // Reported last: the owner's Error handler may run the loop and queue more.
  const PendingPacket& p = dropped->packet;
  ReleaseNext(p.Destination);
  if (auto owner = OwnerOf(*dropped)) {
    ReportError(*owner,
                p.MsgType + " packet [ID: " + p.ID + "] to " + p.Destination +
                    " dropped: the confirmation queue is full",
                p.Destination);
  }
}

void ConfirmReceived(RoutingNode& node, const std::string& destination, const std::string& id) {
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

void ScanConfirmations(RoutingNode& node) {
  while (node.Alive() && ScanOnce(node)) {
  }
}

void DropConfirmations(const RoutingNode& node) {
  auto& entries = TheQueue().entries;
  std::vector<std::string> released;
  for (auto it = entries.begin(); it != entries.end();) {
    auto owner = it->owner.lock();
    if (owner.get() == &node) {
      if (it->packet.Sent) released.push_back(it->packet.Destination);
      it = entries.erase(it);
    } else {
      ++it;
    }
  }
  for (const std::string& destination : released) ReleaseNext(destination);
}

size_t PendingCount() {
  return TheQueue().entries.size();
}

}  // namespace qel
