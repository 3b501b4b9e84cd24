#include "routing/incoming.h"

#include <optional>

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

namespace {

// Chat bodies up to this size leave their string to the next message.
constexpr size_t kKeptChatBody = 4096;

// A received message as it is gone through: its record, or only its bytes
// while it still lies where it was read. A record kept as bytes has them too.
struct Incoming {
  typMessage* record;
  std::string_view bytes;
  const WireIndex& index;
  std::string_view type;

  // A field read through the index while the message is kept as bytes and
  // not unpacked, else from its field list.
  std::string_view Field(WireSpan WireIndex::*span, std::string_view name) const {
    return record ? ReceivedField(*record, span, name) : (index.*span).In(bytes);
  }
  void Forward(RoutingNode& node, LinkId conn) const {
    if (record) return ForwardPacket(node, *record, conn);
    ForwardPacket(node, bytes, index, conn);
  }
};

void Process(RoutingNode& node, Incoming in, LinkId conn) {
  if (in.record && in.record->ResourceUndecodable) {
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
  const bool packed = in.index.valid;
  auto field = [&in](WireSpan WireIndex::*span, std::string_view name) {
    return in.Field(span, name);
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
  if (!forMe) {
    node.Routes.Learn(field(&WireIndex::route, "Route"), node.NodeID);
    in.Forward(node, conn);
    return;
  }
  if (packed && in.type == "MSG" && !in.index.flags.found) {
    // Chat without flags, the bulk of traffic: nothing to confirm or decode,
    // and the strings the host is handed are the only copies made, into the
    // node's own unless an earlier message's handler still holds those.
    const std::string_view bytes = in.bytes;
    RoutingNode::ChatStrings own;
    RoutingNode::ChatStrings& chat = node.Chat.busy ? own : node.Chat;
    chat.body.assign(bytes.substr(in.index.headerSize));
    chat.type.assign(in.index.type.In(bytes));
    chat.source.assign(in.index.source.In(bytes));
    chat.busy = true;
    try {
      node.ChatReceived(chat.body, chat.type, chat.source);
    } catch (...) {
      ReportCurrentFault(node);
    }
    chat.busy = false;
    // A large body is not kept for the next message.
    if (chat.body.capacity() > kKeptChatBody) std::string().swap(chat.body);
    if (!node.Alive()) return;
    node.Routes.Learn(in.index.route.In(bytes), node.NodeID);
    if (!exact) in.Forward(node, conn);
    return;
  }
  // Handlers take a record: one still in the read's bytes is copied out.
  std::optional<typMessage> made;
  if (!in.record) in.record = &made.emplace(ToMessage({in.bytes, in.type, in.index}));
  typMessage& message = *in.record;
  // Only what is delivered here needs its fields and body apart; a ping and
  // its answer are handled from their index alone.
  const bool indexOnly = packed && !message.Index.flags.found &&
                         message.Index.headerSize == message.Wire.size() &&
                         (message.MsgType == "PING" || message.MsgType == "PONG");
  if (!indexOnly) Unpack(message);
  const std::string source(field(&WireIndex::source, "Source"));
  // Relays carry the body as it arrived, so keep it when it is decoded here
  // (bytes kept whole are relayed from those).
  std::string rawBody;
  bool keptRaw = false;
  bool decoded = true;
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
  node.Routes.Learn(field(&WireIndex::route, "Route"), node.NodeID);
  if (!exact) {
    if (keptRaw) message.Body = std::move(rawBody);
    ForwardPacket(node, message, conn);
  }
}

}  // namespace

void ProcessMessage(RoutingNode& node, typMessage&& message, LinkId conn) {
  Process(node, {&message, message.Wire, message.Index, message.MsgType}, conn);
}

void ProcessMessage(RoutingNode& node, const PackedMessage& message, LinkId conn) {
  Process(node, {nullptr, message.bytes, message.index, message.type}, conn);
}

}  // namespace qel
