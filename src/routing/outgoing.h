// The way out: stamping, encoding, confirmation and writing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "net/file_span.h"
#include "net/link_id.h"
#include "protocol/message.h"

namespace qel {

struct RoutingNode;

// Completes a message made on this node: Destination (BROADCAST), Source,
// TTL, Hops and ID when missing, the encoded body with its flags, "C" when a
// confirmation is wanted, and this node on the Route. Returns true when the
// message asks for a confirmation.
bool StampMessage(RoutingNode& node, typMessage& message);

// What the fields of a message made here may hold in all: other nodes refuse
// a header past 64 KiB, and the stamps and the route relays add need room.
inline constexpr size_t kMaxFieldBytes = 60 * 1024;

// Stamps, serialises and sends a message made on this node: to viaConn when
// given, else along a known route, else to every link. A large body
// may be taken over, leaving message.Body empty. Throws QelError 6 when the
// fields hold more than kMaxFieldBytes, sending nothing.
void SendPacket(RoutingNode& node, typMessage& message, LinkId viaConn = {});

// Sends a message made here as SendPacket would, its body being body's bytes of a file,
// which the kernel reads as it sends them: never copied into the process. Only for a
// message to one node, from a node that neither encrypts, compresses nor asks for a
// confirmation, over one link (viaConn, else the route) that sends plaintext. Returns
// false, having sent nothing, when any of that is not so; throws as SendPacket does.
bool SendPacketFromFile(RoutingNode& node, typMessage& message, FileSpan body, LinkId viaConn = {});

// A field written ahead of the ones stamping adds.
struct LeadingField {
  std::string_view name, value;
};

// The text of a message as SendPacket stamps and writes it, for a node that
// neither encrypts, compresses nor asks for a confirmation of it: the
// leading fields, then the ones stamping adds, in its order, written
// straight out. A host's MSG leads with Type and Destination.
void AppendPlain(const RoutingNode& node, std::string_view msgType,
                 std::span<const LeadingField> leading, std::string_view body, std::string_view id,
                 std::string& out);
void AppendPlainMsg(const RoutingNode& node, std::string_view type, std::string_view destination,
                    std::string_view body, std::string_view id, std::string& out);

// Sends a message that way when nothing about it needs the field list
// (destination not empty, no CR LF in the leading values, a body below the
// size sent apart from its header). Returns false, having sent nothing,
// when the message needs SendPacket.
bool SendPlain(RoutingNode& node, std::string_view msgType, std::span<const LeadingField> leading,
               std::string_view destination, std::string_view body);
// A host's MSG.
bool SendPlainMsg(RoutingNode& node, std::string_view type, std::string_view destination,
                  std::string_view body);
// A request or answer that carries only a ReqID (PING, PONG).
bool SendPlainRequest(RoutingNode& node, std::string_view msgType, std::string_view destination,
                      std::string_view reqID);

// Notes the ID of a received message as seen by node, in the packetCache
// list and in the duplicate window; whether either held it already. IDs the
// window's cap forgot early are counted and reported, so this may raise the
// node's Error event and run the loop.
bool SeenBefore(RoutingNode& node, std::string_view id);

// Relays a received message to every link but the one it came in on,
// with TTL one lower (and at most this node's own TTL - 1), Hops one higher
// (stopping at INT64_MAX; not a number counts as 0) and this node on its
// Route; every other field, the body, flags and lengths stay as received. A
// TTL that is not a number, negative or would fall below 1 is not relayed.
// Rewrites the first field of each name in place, so it never throws on what
// a peer wrote (a name that also arrives as an array included). A large
// body may be taken over, leaving message.Body empty.
void ForwardPacket(RoutingNode& node, typMessage& message, LinkId fromConn);
// The same for a message kept as the bytes it arrived in, spliced from them.
void ForwardPacket(RoutingNode& node, std::string_view bytes, const WireIndex& index,
                   LinkId fromConn);

}  // namespace qel
