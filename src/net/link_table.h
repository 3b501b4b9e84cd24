// The process-wide table of links and listening sockets. Each link has one owner, the node
// that dialled or accepted it, and a node sees only its own: it writes, routes, counts and
// closes on its links alone. Indices are stable: elements are reused, never removed, and a
// LinkId tells the uses of one element apart. The table opens links (listen, accept, dial,
// redial), drains their inboxes into the owner under a bound on nesting, closes them (on
// faults, stalls, handshakes that take too long, and the memory budget) and reports each
// to its owner through LinkOwner; it calls nothing above the protocol layer. Above net it
// is reached through links.h.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <qel/types.h>

#include "net/event_loop.h"
#include "net/link.h"
#include "net/link_owner.h"
#include "net/links.h"
#include "net/socket.h"

namespace qel {

class LinkTable {
 public:
  // A handler that waits on a link may see the replies that arrive on it
  // processed one level deeper; deeper than that, and past kMaxDepth nested
  // rounds in all, messages wait in their link's inbox for the rounds to
  // unwind. So what peers send never decides how deep the stack goes.
  static constexpr int kMaxDepthPerLink = 2;
  static constexpr int kMaxDepth = 16;
  // How often stalled links are looked for.
  static constexpr int32_t kSweepIntervalMs = 1000;

  static LinkTable& Get();

  // Link indices run from 1; 0 means "none".
  int32_t Count() const { return static_cast<int32_t>(links_.size()) - 1; }
  Link& At(int32_t index) { return *links_[index]; }
  // Whether link names the current use of its element.
  bool Holds(LinkId link) const {
    return link.index >= 1 && link.index < static_cast<int32_t>(links_.size()) &&
           links_[link.index]->generation == link.generation;
  }
  LinkId Id(int32_t index) const { return {index, links_[index]->generation}; }
  // Whether link index is up: connected, and for a secure link past its handshake.
  bool IsUp(int32_t index) const {
    return index >= 1 && index < static_cast<int32_t>(links_.size()) && links_[index]->IsUp();
  }
  // See the functions of the same names in links.h.
  const std::string& PeerKey(int32_t index) const;
  typLinkInfo LinkInfo(int32_t index) const;
  std::string SetPeerNode(int32_t index, const std::string& nodeID, std::string_view port);

  // See links::Listen; Connect.
  int32_t ListenOnPort(LinkOwner& owner, int32_t port, const std::string& address,
                       const LinkLimits& limits);
  DialResult ConnectTo(LinkOwner& owner, const std::string& address, bool maintain,
                       const LinkLimits& limits);
  // Closes one link and tells its owner; a maintained one is dialled again without waiting.
  void CloseLink(int32_t index, bool stopMaintaining);
  // See links::CloseRefused.
  void CloseRefused(int32_t index, const std::string& text);

  // Takes socket (connected; in tests, in memory) as a link of owner under limits, accepted
  // or dialled, and brings it up as a real one: a dialled one starts its handshake, an
  // accepted one in a secure mode waits for the peer's first byte. peer names it in Errors.
  // May run the loop (the owner hears of a link that is up at once).
  LinkId Adopt(LinkOwner& owner, std::unique_ptr<Socket> socket, bool accepted,
               const LinkLimits& limits, const std::string& peer);

  // See links::HasOpenLink, UpLinks, OpenLinks, OfNode.
  bool HasOpenLink(const LinkOwner& owner) const;
  std::vector<LinkId> UpLinks(const LinkOwner& owner) const;
  std::vector<typLinkInfo> OpenLinks(const LinkOwner& owner) const;
  void Describe(const LinkOwner& owner, NodeSnapshot& into) const;
  int32_t LinkOfNode(const LinkOwner& owner, std::string_view nodeID) const;

  // Writes to a link that is up; others are skipped silently (see links::Write).
  void Write(int32_t index, std::string_view text);
  void WriteOwned(int32_t index, std::string&& text);
  void WriteOwned(int32_t index, std::string&& header, std::string&& body);
  // See links::CarriesFiles and WriteFile.
  bool CarriesFiles(int32_t index) const;
  void WriteFile(int32_t index, std::string&& header, FileSpan body);
  void WriteToAllExcept(const LinkOwner& owner, int32_t except,
                        std::span<const std::string_view> pieces);
  // Bytes waiting to be sent on a link (0 for one that is not up).
  size_t QueuedBytes(int32_t index) const;
  // owner's link with the most bytes waiting to be sent, or 0.
  int32_t Fullest(const LinkOwner& owner) const;

  // See links::CloseListeners, CloseAll, CloseAddress.
  bool CloseListeners(const LinkOwner& owner);
  void CloseOwnedBy(const LinkOwner& owner);
  bool CloseAddress(const LinkOwner& owner, const std::string& address, const std::string& nodeID);

 private:
  LinkTable();

  int32_t GetFreeLink(LinkOwner& owner, const LinkLimits& limits);
  // Adds what the element's link carried to its owner's totals, before the element serves
  // another link.
  void Retire(int32_t index);
  // Gives element index to owner, taking it from the one it had.
  void SetOwner(int32_t index, LinkOwner& owner);
  void Attach(int32_t index);
  // False when the address no longer parses (reported to the owner).
  bool StartDial(int32_t index, bool redial);
  void Redial(int32_t index);
  void OnConnected(int32_t index);
  // Tells the owner the link is up (it may run the loop); false when the link was closed or
  // taken again meanwhile.
  bool LinkUp(int32_t index, uint64_t generation);
  void OnData(int32_t index, uint64_t generation, std::string_view data);
  // Bytes of a link whose transform must see them first.
  void OnTransformed(int32_t index, uint64_t generation, std::string_view data);
  // Plaintext for the feeder.
  void FeedPlain(int32_t index, uint64_t generation, std::string_view data);
  // The peer closed or the link broke.
  void OnPeerClosed(int32_t index);
  // A link that is not up yet ends: dialled again in plaintext when it may fall back and
  // fallBack is asked; else closed, without the owner hearing of a link, and why (when not
  // empty) goes to the ConnectTo waiting for it or else to the owner.
  void EndBeforeUp(int32_t index, std::string why, bool fallBack);
  // How long a link may take from connected to up.
  static int32_t HandshakeMs(const LinkLimits& limits);
  // What follows new bytes: reading paused or resumed, the budget, the inbox.
  void AfterFeed(int32_t index, uint64_t generation);
  void Drain(int32_t index, uint64_t generation);
  void DrainPending();
  void OnAccept(size_t listener, std::unique_ptr<Socket> socket);
  void UpkeepTick();
  void SweepStalled();
  // Closes the largest holders while the bytes held, with incoming more for
  // index, pass the budget.
  void CheckBudget(int32_t index, size_t incoming = 0);
  // Whether pieces may be queued on index (debug-logged when they may).
  bool Admit(int32_t index, std::span<const std::string_view> pieces);
  // Closes index once its queue passes what any burst needs.
  void LimitBacklog(int32_t index);
  void CloseWithFault(int32_t index, uint64_t generation, const std::string& text);
  void CloseLater(int32_t index, std::string text);
  // Links of owner that are open or opening.
  int32_t OpenCount(const LinkOwner& owner) const;

  struct ListenerEntry {
    std::unique_ptr<Listener> sck;
    std::weak_ptr<LinkOwner> Owner;
    LinkLimits limits;
    bool refusing = false;  // the last request was refused for maxConnections
  };
  std::vector<std::unique_ptr<Link>> links_;
  std::vector<ListenerEntry> listeners_;
  int depth_ = 0;  // Drain rounds running, over all links
  // Links whose drainPending was set, to be drained once the nesting
  // unwinds; an index may be listed after its flag was cleared.
  std::vector<int32_t> pendingDrains_;
  Timer upkeep_;
  Timer sweep_;
};

}  // namespace qel
