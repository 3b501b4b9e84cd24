// What the layers above net may do with links: write to them, wait for their queues, ask
// who is at the other end, open and close them. Everything runs on the loop's thread. An id
// whose link closed, or whose element was taken again, names no link: writes to it are
// dropped and questions about it answer as for a link that is down.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <qel/snapshot.h>
#include <qel/types.h>

#include "net/file_span.h"
#include "net/link_id.h"
#include "net/link_owner.h"

namespace qel {

// Why a dial did not bring a link up.
enum class DialFault { None, Malformed, Unresolvable, Refused, TimedOut, Other };

struct DialResult {
  DialFault fault = DialFault::None;
  std::string why;  // for the host, e.g. "connection refused"; empty when up
  explicit operator bool() const { return fault == DialFault::None; }
};

namespace links {

// Whether link is up: connected, and for a secure link past its handshake.
bool IsUp(LinkId link);

// Queues text on link; a link that is not up is skipped silently. Never runs the loop: a
// link whose queue passes its limit, or that holds too much of the memory budget, is closed
// from the loop afterwards.
void Write(LinkId link, std::string_view text);
// The same, taking the text over (no copy of a large message).
void WriteOwned(LinkId link, std::string&& text);
// A message as header and body, sent without joining them.
void WriteOwned(LinkId link, std::string&& header, std::string&& body);
// Whether link is up and sends plaintext: it may take a body straight from a file.
bool CarriesFiles(LinkId link);
// Queues header and behind it body, which the kernel reads from the file as it sends it:
// only the header is held in memory and counts against the budget. For a link that
// CarriesFiles; others are skipped silently. Should the file end before body does, the
// message cannot be completed: the link is closed from the loop, its owner told why.
void WriteFile(LinkId link, std::string&& header, FileSpan body);
// Writes text to each of owner's links but except.
void WriteToAllExcept(const LinkOwner& owner, LinkId except, std::string_view text);
// The same for a message given as pieces: each link queues the pieces in one go, and
// nothing is joined first.
void WriteToAllExcept(const LinkOwner& owner, LinkId except,
                      std::span<const std::string_view> pieces);

// owner's links that are up, in table order.
std::vector<LinkId> UpLinks(const LinkOwner& owner);
// Bytes waiting to be sent on link (0 for one that is not up).
size_t QueuedBytes(LinkId link);
// owner's link with the most bytes waiting to be sent, or none: what a writer flooding
// every link must wait for.
LinkId Fullest(const LinkOwner& owner);
// Runs fn from the loop once fewer than `below` bytes wait to be sent on link, or once it
// closes (fn then finds it down): a writer of a long stream writes the next piece only when
// the peer keeps up.
void WhenDrained(LinkId link, size_t below, std::function<void()> fn);

// owner's first link whose peer announced nodeID, or none ("BROADCAST" names none).
LinkId OfNode(const LinkOwner& owner, std::string_view nodeID);
// The node ID the peer on link announced; empty before it did, or once the link is gone.
const std::string& PeerNode(LinkId link);
// Records that the peer on link is nodeID and, when port is not empty, that it listens on
// port at the address its link comes from: the link is known by that address from then on.
// Returns the address the link is known by (empty: none).
std::string SetPeerNode(LinkId link, const std::string& nodeID, std::string_view port);
// The key ID of the peer on a secure link that is up; else empty.
const std::string& PeerKey(LinkId link);
// What the host sees of link; a default typLinkInfo when it is not up.
typLinkInfo Info(LinkId link);
// Tells link's owner text and closes the link for who its peer is: a maintained one is
// dialled again by the upkeep tick, not at once, so a peer refused on sight cannot keep the
// node dialling it. May run the loop (the owner hears of the close).
void CloseRefused(LinkId link, const std::string& text);

// Whether any link of owner is up.
bool HasOpenLink(const LinkOwner& owner);
// owner's links that are up, in index order, as the host sees them.
std::vector<typLinkInfo> OpenLinks(const LinkOwner& owner);
// Appends owner's links that are open or coming up to into.links and sets into's traffic
// totals (over every link owner had) and memoryHeld. Copies only the links' strings.
void Describe(const LinkOwner& owner, NodeSnapshot& into);

// Opens a listening socket for owner on port (0: any free port) at address (empty: every
// IPv4 interface) and returns the port it listens on, or 0 when it cannot; an address that
// is not a numeric IP address is reported to the owner. Throws QelError -2147221501 when
// this process already listens on the port. Accepted links run under limits.
int32_t Listen(LinkOwner& owner, int32_t port, const std::string& address,
               const LinkLimits& limits);
// Dials address ("host:port", or a host and limits.defaultPort) and runs the loop until the
// link is up or its time passed; says why when it is not up. A malformed address takes no
// element and is not maintained.
DialResult Connect(LinkOwner& owner, const std::string& address, bool maintain,
                   const LinkLimits& limits);
// Closes owner's links to address, or to the peer nodeID when it is not empty, and stops
// maintaining them; true when it closed one that was open. May run the loop.
bool CloseAddress(LinkOwner& owner, const std::string& address, const std::string& nodeID = {});
// Closes owner's listening sockets; true when it had one.
bool CloseListeners(const LinkOwner& owner);
// Closes every link owner has and stops maintaining them. May run the loop.
void CloseAll(const LinkOwner& owner);

// Starts the timers that redial maintained links and close stalled ones; the first use of
// any function here does the same.
void Start();

}  // namespace links
}  // namespace qel
