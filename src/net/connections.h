// The process-wide table of connections and listening sockets. Each element
// has one owner, the node that dialled or accepted it, and a node sees only
// its own: it writes, routes, counts and closes on its connections alone.
// Indices are stable: elements are reused, never removed. The table reports
// to each connection's owner through LinkOwner and calls nothing above the
// protocol layer.
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
#include "net/link_owner.h"
#include "net/links.h"
#include "net/link_transform.h"
#include "net/socket.h"
#include "protocol/feeder.h"

namespace qel {

// Complete messages waiting for their handler, oldest first. A steady
// stream reuses one array: taking a message leaves its moved-from record
// behind until the queue empties or the dead records are the larger part.
class Inbox {
 public:
  bool empty() const { return head_ == items_.size(); }
  void push_back(typMessage&& message);
  typMessage take_front();
  // Drops every message and gives the memory back.
  void Release();

 private:
  // Records kept for reuse once the queue empties; a larger burst's are freed.
  static constexpr size_t kKeep = 64;
  std::vector<typMessage> items_;
  size_t head_ = 0;
};

struct Connection {
  std::unique_ptr<Socket> sck = std::make_unique<Socket>();
  std::weak_ptr<LinkOwner> Owner;
  LinkLimits limits;
  std::string NodeID;   // the peer, once its INFO arrived
  std::string Address;  // what Connect was given, or what the peer advertised
  // "host:port" as the link is known, for the host's events: the address
  // dialled with its port, else the peer's IP with the port it advertised,
  // else with the port its connection came from. Kept after the socket broke.
  std::string Peer;
  std::error_code dialError;  // why the last dial failed
  bool Maintain = false;
  bool accepted = false;  // the peer dialled; else this end did
  int64_t upTick = 0;     // when the link last came up
  // The dial in progress was started by the table (a maintained link coming
  // back), not by a caller waiting for it.
  bool redial = false;
  // Plaintext, or TLS between the socket and the feeder.
  LinkTransform stream;
  // The owner was told the link is up: a plaintext link once it connected (an accepted one
  // in a secure mode once its first byte said so), a TLS link once its handshake is done.
  bool up = false;
  // A prefer dial found no TLS at this address: the redials of this element stay plaintext.
  bool plainOnly = false;
  // A ConnectTo waits for this dial, and hears from dialFault why its link closed before
  // it came up.
  bool dialWaiting = false;
  std::string dialFault;
  // Closed because of its peer's identity: re-dialled by the upkeep tick, never at once.
  bool holdRedial = false;
  MessageFeeder Partial;
  // Complete messages not yet processed, and their bytes.
  Inbox inbox;
  size_t inboxBytes = 0;
  uint64_t generation = 0;    // bumped whenever the element is taken again
  int draining = 0;           // nesting depth of Drain: the element must not be taken again
  bool drainPending = false;  // inbox waits for the nesting to unwind
  // The peer stopped reading and the queue passed its limit: nothing more is
  // queued and the connection is about to close.
  bool backlogFull = false;
  int64_t lastByteTick = 0;  // when the peer last sent anything
  // Callers waiting for the send queue to shrink below their mark.
  struct DrainWaiter {
    size_t below;
    std::function<void()> fn;
  };
  std::vector<DrainWaiter> drainWaiters;
};

// What an address names: host and port, or why it names nothing that can be
// dialled (fault set to Malformed). "host:port" splits at the last colon;
// without a port, defaultPort is dialled (0: none).
struct DialTarget {
  std::string host;
  uint16_t port = 0;
  DialResult fault;
};
DialTarget ParseDialAddress(std::string_view address, int32_t defaultPort);

class Connections {
 public:
  // A handler that waits on a connection may see the replies that arrive on
  // it processed one level deeper; deeper than that, and past kMaxDepth
  // nested rounds in all, messages wait in their connection's inbox for the
  // rounds to unwind. So what peers send never decides how deep the stack
  // goes.
  static constexpr int kMaxDepthPerConnection = 2;
  static constexpr int kMaxDepth = 16;
  // How often stalled connections are looked for.
  static constexpr int32_t kSweepIntervalMs = 1000;

  static Connections& Get();

  // Connection indices run from 1; 0 means "none".
  int32_t Count() const { return static_cast<int32_t>(conns_.size()) - 1; }
  Connection& At(int32_t index) { return *conns_[index]; }
  // Whether link names the current use of its element.
  bool Holds(LinkId link) const {
    return link.index >= 1 && link.index < static_cast<int32_t>(conns_.size()) &&
           conns_[link.index]->generation == link.generation;
  }
  LinkId Id(int32_t index) const { return {index, conns_[index]->generation}; }
  // Whether connection index is up: connected, and for a secure link past its handshake.
  bool IsConnected(int32_t index) const;
  // The key ID of the peer on a secure link that is up; else empty.
  const std::string& PeerKey(int32_t index) const;
  // What the host sees of an open link (see OpenLinks).
  typLinkInfo LinkInfo(int32_t index) const;

  // Opens a listening socket for owner on port (0: any free port) at address
  // (empty: every IPv4 interface) and returns the port it listens on, or 0
  // when it cannot; an address that is not a numeric IP address is reported
  // to the owner. Throws QelError -2147221501 when this process already
  // listens on the port. Accepted connections run under limits.
  int32_t ListenOnPort(LinkOwner& owner, int32_t port, const std::string& address,
                       const LinkLimits& limits);
  // Dials address ("host:port", or a host and limits.defaultPort) and runs
  // the loop until it is up or limits.connectTimeoutMs passed; says why
  // when it is not up. A malformed address takes no connection and is not
  // maintained.
  DialResult ConnectTo(LinkOwner& owner, const std::string& address, bool maintain,
                       const LinkLimits& limits);
  // Closes one connection and tells its owner; a maintained one is dialled
  // again without waiting.
  void CloseConnection(int32_t index, bool stopMaintaining);
  // Tells the owner text and closes the connection for who its peer is: a maintained one
  // is dialled again by the upkeep tick, not at once, so a peer refused on sight cannot
  // keep the node dialling it.
  void CloseRefused(int32_t index, const std::string& text);

  // Takes socket (connected; in tests, in memory) as a link of owner under limits, accepted
  // or dialled, and brings it up as a real one: a dialled one starts its handshake, an
  // accepted one in a secure mode waits for the peer's first byte. peer names it in Errors.
  // May run the loop (the owner hears of a link that is up at once). Returns its index.
  int32_t Adopt(LinkOwner& owner, std::unique_ptr<Socket> socket, bool accepted,
                const LinkLimits& limits, const std::string& peer);

  // Whether any connection of owner is up.
  bool HasOpenLink(const LinkOwner& owner) const;

  // owner's connections that are up, in index order.
  std::vector<LinkId> UpLinks(const LinkOwner& owner) const;
  // See links::SetPeerNode.
  std::string SetPeerNode(int32_t index, const std::string& nodeID, std::string_view port);

  // owner's open connections, in index order, as the host sees them.
  std::vector<typLinkInfo> OpenLinks(const LinkOwner& owner) const;

  // The first of owner's connections whose peer is nodeID, or 0.
  int32_t ConnectionOfNode(const LinkOwner& owner, std::string_view nodeID) const;
  // Writes text to a connected socket; others are skipped silently.
  void Write(int32_t index, std::string_view text);
  // The same, taking the text over (no copy of a large message).
  void WriteOwned(int32_t index, std::string&& text);
  // A message as header and body, sent without joining them.
  void WriteOwned(int32_t index, std::string&& header, std::string&& body);
  // Writes text to each of owner's connections but except.
  void WriteToAllExcept(const LinkOwner& owner, int32_t except, std::string_view text);
  // The same for a message given as pieces: each connection queues the
  // pieces in one go, and nothing is joined first.
  void WriteToAllExcept(const LinkOwner& owner, int32_t except,
                        std::span<const std::string_view> pieces);
  // Bytes waiting to be sent on a connection (0 for one that is not up).
  size_t QueuedBytes(int32_t index) const;
  // owner's open connection with the most bytes waiting to be sent, or 0:
  // what a writer flooding every link must wait for.
  int32_t FullestConnection(const LinkOwner& owner) const;
  // Runs fn from the loop once fewer than `below` bytes wait to be sent on
  // connection index, or once it closes (fn then finds it closed): a writer
  // of a long stream writes the next piece only when the peer keeps up.
  void WhenDrained(int32_t index, size_t below, std::function<void()> fn);

  // Closes owner's listening sockets; true when it had one.
  bool CloseListeners(const LinkOwner& owner);
  // Closes every connection owner owns.
  void CloseOwnedBy(const LinkOwner& owner);
  // Closes owner's connections to address, or to the peer nodeID when it is
  // not empty, and stops maintaining them; true when it closed one that was
  // open.
  bool CloseAddress(const LinkOwner& owner, const std::string& address,
                    const std::string& nodeID = {});

 private:
  Connections();
  // Bytes the table holds for a connection: waiting to be sent, and received
  // but not yet processed.
  size_t HeldBytes(int32_t index) const;
  // Bytes waiting to be sent, plaintext not yet sealed included.
  size_t Waiting(const Connection& c) const;

  int32_t GetFreeSocket(LinkOwner& owner, const LinkLimits& limits);
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
  // Seals what a TLS link wrote since the last flush, and sends what its session must.
  void Seal(int32_t index, uint64_t generation);
  // Queues message pieces on a link that is up.
  void Send(int32_t index, std::span<const std::string_view> pieces);
  // The peer closed or the link broke.
  void OnPeerClosed(int32_t index);
  // A link that is not up yet ends: dialled again in plaintext when it may fall back and
  // fallBack is asked; else closed, without the owner hearing of a link, and why (when not
  // empty) goes to the ConnectTo waiting for it or else to the owner.
  void EndBeforeUp(int32_t index, std::string why, bool fallBack);
  // How long a link may take from connected to up.
  static int32_t HandshakeMs(const LinkLimits& limits);
  // Where the next read of index may put its bytes (see Socket::Handlers).
  std::span<char> ReadRoom(int32_t index, uint64_t generation);
  // n bytes were read into that room.
  void OnDirect(int32_t index, uint64_t generation, size_t n);
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
  // Whether text may be queued on index (debug-logged when it may).
  bool Admit(int32_t index, std::string_view text, std::string_view more = {});
  bool Admit(int32_t index, std::span<const std::string_view> pieces);
  // Closes index once its queue passes what any burst needs.
  void LimitBacklog(int32_t index);
  void CloseWithFault(int32_t index, uint64_t generation, const std::string& text);
  void CloseLater(int32_t index, std::string text);
  void ReleaseBuffers(Connection& c);
  // Hands the drain waiters of index that are satisfied (all of them when
  // the connection closed) to the loop.
  void WakeDrainWaiters(int32_t index, bool all);
  // Connections of owner that are open or opening.
  int32_t OpenCount(const LinkOwner& owner) const;

  struct ListenerEntry {
    std::unique_ptr<Listener> sck;
    std::weak_ptr<LinkOwner> Owner;
    LinkLimits limits;
    bool refusing = false;  // the last request was refused for maxConnections
  };
  std::vector<std::unique_ptr<Connection>> conns_;
  std::vector<ListenerEntry> listeners_;
  int depth_ = 0;  // Drain rounds running, over all connections
  // Connections whose drainPending was set, to be drained once the nesting
  // unwinds; an index may be listed after its flag was cleared.
  std::vector<int32_t> pendingDrains_;
  Timer upkeep_;
  Timer sweep_;
};

}  // namespace qel
