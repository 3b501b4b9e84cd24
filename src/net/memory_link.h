// Links without sockets, for tests and fuzz targets: handshakes, budgets, stalls and cut
// streams run through the real table without a port. A link is joined to another in memory,
// or its other end is the caller.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "net/link_id.h"
#include "net/link_owner.h"

namespace qel {

// A link dialled by dialler and accepted by acceptor, each under its own limits, joined by a
// pair of pipes: what one end sends reaches the other from the loop, and a close of one end
// is seen by the other as its peer closing. Returns the dialler's end, then the acceptor's.
// May run the loop.
std::pair<LinkId, LinkId> JoinInMemory(LinkOwner& dialler, const LinkLimits& diallerLimits,
                                       LinkOwner& acceptor, const LinkLimits& acceptorLimits);

// A link of owner under limits whose other end is the caller: what the link sends is
// appended to *sent as it is queued (a TLS link's once it is sealed, at the flush), and
// ReceiveInMemory hands it bytes as reads from a socket would. accepted: the peer dialled,
// so in a secure mode the link waits for its first byte; else this end dialled, and a TLS
// link starts its handshake. May run the loop (the owner hears of a link that is up).
LinkId OpenInMemory(LinkOwner& owner, const LinkLimits& limits, bool accepted,
                    std::shared_ptr<std::string> sent);
// Bytes from the caller's end of link, cut wherever the caller cut them; nothing once the
// link closed. May run the loop.
void ReceiveInMemory(LinkId link, std::string_view bytes);
// Whether link was closed: a link may be open and not yet up while it hand-shakes.
bool ClosedInMemory(LinkId link);

}  // namespace qel
