#include "routing/incoming.h"

#include "core/stats.h"
#include "net/event_loop.h"
#include "protocol/body.h"
#include "routing/confirm.h"
#include "routing/discovery.h"
#include "routing/dispatch.h"
#include "routing/outgoing.h"
#include "routing/report.h"
#include "routing/routing_node.h"
#include "settings/settings_text.h"

namespace qel {
namespace {

// Whether an encrypted body that must be a settings text is not one.
bool GarbledSettingsBody(const typMessage& message) {
  return (HasFlag(message, "NE") || HasFlag(message, "KE")) &&
         !WhyNotSettingsText(message.Body).empty();
}

void RegisterRoutingHandlers(Dispatcher& handlers) {
  handlers.Register("CONFIRM", [](RoutingNode& node, typMessage& message, const Arrival& from) {
    ConfirmReceived(node, from.source, GetSingleField(message.Fields, "Source-ID"));
  });
  handlers.Register("WHOIS", [](RoutingNode& node, typMessage& message, const Arrival&) {
    OnWhois(node, message);
  });
  handlers.Register("INFO", [](RoutingNode& node, typMessage& message, const Arrival& from) {
    OnInfo(node, message, from.conn);
  });
  handlers.Register("PING", [](RoutingNode& node, typMessage& message, const Arrival&) {
    OnPing(node, message);
  });
  handlers.Register("PONG", [](RoutingNode& node, typMessage& message, const Arrival&) {
    OnPong(node, message);
  });
}

}  // namespace

RoutingNode::RoutingNode() {
  RegisterRoutingHandlers(Handlers);
}

typMessage MakeConfirm(const std::string& destination, const std::string& id) {
  typMessage confirm = NewMessage();
  confirm.MsgType = "CONFIRM";
  SetField(confirm.Fields, "Destination", Variant(destination));
  SetField(confirm.Fields, "Source-ID", Variant(id));
  return confirm;
}

void ProcessMessage(RoutingNode& node, typMessage&& message, LinkId conn) {
  if (message.ResourceUndecodable) {
    // The resource is read as "\"; the message itself goes on.
    ReportError(node, "Error 13: Type mismatch");
    if (!node.Alive()) return;
  }
  auto& stats = TheStats();
  ++stats.InPacketsAcc;
  ++stats.InPacketCount;
  // Views into the fields: nothing changes them before the relay step, and a
  // relay needs no copies of its own. A message kept as the bytes it came
  // in is read through its index; the bytes stay as they are to the end.
  const bool packed = message.Index.valid;
  auto field = [&message](WireSpan WireIndex::*span, std::string_view name) {
    return ReceivedField(message, span, name);
  };
  const std::string_view id = field(&WireIndex::id, "ID");
  const std::string_view destination = field(&WireIndex::destination, "Destination");
  const bool exact = !node.NodeID.empty() && destination == node.NodeID;
  const bool duplicate = SeenBefore(node, id);
  node.Counters.DuplicatesDropped += duplicate ? 1 : 0;
  if (!node.Alive()) return;  // an Error handler shut the node down
  // A message that asks this node for a CONFIRM comes again when the
  // CONFIRM is lost, often after the duplicate cache has moved on: it is
  // confirmed again but delivered only once.
  if (exact && FlagsHold(field(&WireIndex::flags, "Flags"), "C")) {
    const uint64_t cuts = node.Resends.Cuts();
    const ResendWindow::Seen seen = node.Resends.Note(id, TickCount());
    stats.ResendWindowCuts += static_cast<int64_t>(node.Resends.Cuts() - cuts);
    if (seen != ResendWindow::Seen::First) {
      if (seen == ResendWindow::Seen::Again) {
        try {
          typMessage confirm =
              MakeConfirm(std::string(field(&WireIndex::source, "Source")), std::string(id));
          SendPacket(node, confirm);
        } catch (...) {
          ReportCurrentFault(node);
        }
      }
      if (!duplicate && node.Alive()) {
        node.Routes.Learn(field(&WireIndex::route, "Route"), node.NodeID);
      }
      return;
    }
  }
  if (duplicate) return;

  const bool forMe = destination == "BROADCAST" ||
                     (!node.NodeID.empty() && destination.find(node.NodeID) != std::string::npos);
  if (forMe && packed && message.MsgType == "MSG" && !message.Index.flags.found) {
    // Chat without flags, the bulk of traffic: nothing to confirm or decode,
    // and the strings the host is handed are the only copies made.
    const std::string_view bytes = message.Wire;
    try {
      node.ChatReceived(std::string(bytes.substr(message.Index.headerSize)),
                        std::string(message.Index.type.In(bytes)),
                        std::string(message.Index.source.In(bytes)));
    } catch (...) {
      ReportCurrentFault(node);
    }
    if (!node.Alive()) return;
    node.Routes.Learn(message.Index.route.In(bytes), node.NodeID);
    if (!exact) ForwardPacket(node, message, conn);
    return;
  }
  // Only what is delivered here needs its fields and body apart; a ping and
  // its answer are handled from their index alone.
  const bool indexOnly = packed && !message.Index.flags.found &&
                         message.Index.headerSize == message.Wire.size() &&
                         (message.MsgType == "PING" || message.MsgType == "PONG");
  if (forMe && !indexOnly) Unpack(message);
  const std::string source =
      !forMe ? std::string() : std::string(field(&WireIndex::source, "Source"));
  // Relays carry the body as it arrived, so keep it when it is decoded here
  // (bytes kept whole are relayed from those).
  std::string rawBody;
  bool keptRaw = false;
  bool decoded = true;
  if (forMe) {
    try {
      if (exact && HasFlag(message, "C")) {
        typMessage confirm = MakeConfirm(source, std::string(id));
        SendPacket(node, confirm);
      }
      if (!message.Body.empty()) {
        if (!exact && !packed) {
          rawBody = message.Body;
          keptRaw = true;
        }
        DecodeOutcome outcome =
            DecodeBody(message, node.netPass, node.EncryptionKey, node.maxMessage);
        std::string why;
        if (outcome.result == DecodeResult::TooLarge) {
          why = "its original length is above " + std::to_string(node.maxMessage);
        } else if (outcome.result != DecodeResult::Ok) {
          why = "its body does not decompress";
        } else if (message.MsgType == "INFO" && GarbledSettingsBody(message)) {
          // Decryption cannot fail, but an INFO must read as a settings text:
          // garbage here is the one sign of a key that does not match.
          why = HasFlag(message, "NE")
                    ? "its body is garbage once decrypted: the sender's netPass is not this node's"
                    : "its body is garbage once decrypted with this node's key";
        }
        if (outcome.result == DecodeResult::Ok && outcome.compressed) {
          stats.RecordCompression(outcome.contentLength, outcome.originalLength);
        }
        if (!why.empty()) {
          // Not delivered here; learning its route and relaying it (as it
          // arrived) go on as for any other message.
          decoded = false;
          ReportError(node, "Message " + std::string(id) + " from " + source + " dropped: " + why,
                      source);
        }
      }
      // Types without a handler are ignored without a reply.
      const MessageHandler* handler = decoded ? node.Handlers.Find(message.MsgType) : nullptr;
      if (handler) (*handler)(node, message, {conn, source, !exact && !keptRaw && !packed});
    } catch (...) {
      ReportCurrentFault(node);
    }
    if (!node.Alive()) return;  // a handler shut the node down
  }
  node.Routes.Learn(field(&WireIndex::route, "Route"), node.NodeID);
  if (!exact) {
    if (keptRaw) message.Body = std::move(rawBody);
    ForwardPacket(node, message, conn);
  }
}

}  // namespace qel
