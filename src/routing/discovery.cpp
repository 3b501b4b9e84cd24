#include "routing/discovery.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>

#include <qel/error.h>
#include <qel/settings.h>

#include "core/new_id.h"
#include "net/event_loop.h"
#include "net/links.h"
#include "net/local_address.h"
#include "routing/outgoing.h"
#include "routing/report.h"
#include "routing/routing_node.h"

namespace qel {
namespace {

void SendWithReqID(RoutingNode& node, const char* type, const std::string& destination,
                   const std::string& reqID) {
  if (SendPlainRequest(node, type, destination, reqID)) return;
  typMessage message = MakeRequest(type, destination, reqID);
  SendPacket(node, message);
}

std::string ReadText(cSettings& body, const char* key) {
  try {
    return body.GetSetting(key, Variant(""), "Common").toString();
  } catch (...) {
    return {};
  }
}

// Peers choose what they announce and the IDs they announce it under; the
// node cache bounds how many entries it keeps and this bounds an entry's ID
// and values together, so the cache's size has a bound too.
constexpr size_t kMaxInfoBytes = 4096;

// What an INFO may still add to its entry.
struct InfoRoom {
  size_t left = kMaxInfoBytes;
  bool cut = false;

  std::string Take(std::string value) {
    if (value.size() <= left) {
      left -= value.size();
      return value;
    }
    cut = true;
    // substr, not resize: a long value must not keep its memory.
    std::string kept = value.substr(0, left);
    left = 0;
    return kept;
  }
};

// Nodes learned from INFO messages by any node of the process; position 0
// is unused.
std::vector<NodeEntry>& KnownNodes() {
  static auto* list = new std::vector<NodeEntry>(1);
  return *list;
}

// The process-wide list keeps at most kKnownNodeLimit + 1 places; when full,
// everything moves down one and the oldest place is dropped.
constexpr int32_t kKnownNodeLimit = 20;

void RememberKnownNode(const NodeEntry& entry) {
  auto& list = KnownNodes();
  if (int32_t found = FindKnownNode(entry.ID()); found >= 0) {
    list[found] = entry;
  } else if (static_cast<int32_t>(list.size()) - 1 >= kKnownNodeLimit) {
    list.erase(list.begin());
    list.push_back(entry);
  } else {
    list.push_back(entry);
  }
}

}  // namespace

typMessage MakeMessage(const char* type, const std::string& destination) {
  typMessage message = NewMessage();
  message.MsgType = type;
  SetField(message.Fields, "Destination", Variant(destination));
  return message;
}

typMessage MakeRequest(const char* type, const std::string& destination, const std::string& reqID) {
  typMessage message = MakeMessage(type, destination);
  SetField(message.Fields, "ReqID", Variant(reqID));
  return message;
}

typMessage MakeInfo(const RoutingNode& node, const std::string& destination) {
  typMessage message = MakeMessage("INFO", destination);
  cSettings body;
  body.SaveSetting("Name", Variant(node.Name));
  body.SaveSetting("Role", Variant(static_cast<int32_t>(node.Role)));
  body.SaveSetting("Descriptor", Variant(node.Descriptor));
  body.SaveSetting("Encryption-Key", Variant(node.EncryptionKey));
  body.SaveSetting("Address", Variant(AdvertisedAddress() + ":" + std::to_string(node.ListenPort)));
  body.SaveSetting("Sharing-Files", Variant(node.SharingFiles));
  body.SaveSetting("Active-User", Variant(node.ActiveUser));
  message.Body = body.getXML();
  return message;
}

void SendInfo(RoutingNode& node, const std::string& destination, LinkId viaConn) {
  typMessage info = MakeInfo(node, destination);
  SendPacket(node, info, viaConn);
}

int32_t FindCachedNode(const RoutingNode& node, const std::string& id) {
  return node.NodeCache.Find(id);
}

int32_t FindKnownNode(const std::string& id) {
  if (id.empty()) return -1;
  const auto& list = KnownNodes();
  for (size_t i = 0; i < list.size(); ++i) {
    if (list[i].ID() == id) return static_cast<int32_t>(i);
  }
  return -1;
}

std::string KnownKey(const RoutingNode& node, const std::string& nodeID) {
  int32_t found = FindCachedNode(node, nodeID);
  return found >= 0 ? node.NodeCache[found].EncryptionKey() : std::string();
}

namespace {

// Asks nodeID to describe itself and waits for its answer; the answer's
// position in the cache, or -1.
int32_t AskNode(RoutingNode& node, const std::string& nodeID, int32_t timeoutMs) {
  // Only an INFO taken after the question counts: the cached one may be stale.
  const uint64_t asked = node.InfoCount;
  auto fresh = [&] {
    int32_t i = FindCachedNode(node, nodeID);
    return i >= 0 && node.NodeCache[i].InfoSerial > asked ? i : -1;
  };
  typMessage whois = MakeMessage("WHOIS", nodeID);
  SendPacket(node, whois);
  RunUntil([&] { return fresh() >= 0; }, timeoutMs);
  return fresh();
}

}  // namespace

std::vector<typNodeInfo> QueryNodes(RoutingNode& node, const std::string& destination,
                                    bool useCached) {
  if (destination == "BROADCAST") {
    node.NodeCache.Clear();
    typMessage whois = MakeMessage("WHOIS", "BROADCAST");
    SendPacket(node, whois);
    // Any number of nodes may answer, so the wait always runs to its end.
    RunUntil([] { return false; }, node.Timeout);
    std::vector<typNodeInfo> result;
    for (const NodeEntry& entry : node.NodeCache) result.push_back(entry.ToNodeInfo());
    return result;
  }
  if (useCached) {
    if (int32_t cached = FindCachedNode(node, destination); cached >= 0) {
      return {node.NodeCache[cached].ToNodeInfo()};
    }
    if (int32_t known = FindKnownNode(destination); known >= 0) {
      return {KnownNodes()[known].ToNodeInfo()};
    }
  }
  int32_t found = AskNode(node, destination, node.Timeout);
  return {found >= 0 ? node.NodeCache[found].ToNodeInfo() : typNodeInfo{}};
}

std::string ResolveAddress(RoutingNode& node, const std::string& nodeID) {
  auto found = QueryNodes(node, nodeID, true);
  return found.empty() ? std::string() : found[0].Address;
}

std::string KnownAddress(const RoutingNode& node, const std::string& nodeID) {
  if (int32_t cached = FindCachedNode(node, nodeID); cached >= 0) {
    return node.NodeCache[cached].Address();
  }
  int32_t known = FindKnownNode(nodeID);
  return known >= 0 ? KnownNodes()[known].Address() : std::string();
}

namespace {

void SendPing(RoutingNode& node, PingWait& wait) {
  wait.reqID = NewID();
  wait.start = std::chrono::steady_clock::now();
  SendWithReqID(node, "PING", wait.nodeID, wait.reqID);
}

// Takes the wait out before its done runs, which may start pings or run the
// loop; a wait already ended is left alone.
void EndPing(RoutingNode& node, uint64_t key, std::chrono::microseconds rtt) {
  auto it = node.Pings.find(key);
  if (it == node.Pings.end()) return;
  PingWait wait = std::move(it->second);
  node.Pings.erase(it);
  wait.done({rtt, !wait.reqID.empty()});
}

// Sends the PINGs that waited for nodeID to describe itself.
void PingWhenKnown(RoutingNode& node, const std::string& nodeID) {
  std::vector<uint64_t> asking;
  for (const auto& [key, wait] : node.Pings) {
    if (wait.reqID.empty() && wait.nodeID == nodeID) asking.push_back(key);
  }
  // Sending may raise events whose handlers end or start pings.
  for (uint64_t key : asking) {
    if (auto it = node.Pings.find(key); it != node.Pings.end() && it->second.reqID.empty()) {
      SendPing(node, it->second);
    }
  }
}

}  // namespace

void StartPing(RoutingNode& node, const std::string& nodeID, int32_t timeoutMs,
               std::function<void(PingResult)> done) {
  const uint64_t key = ++node.PingSerial;
  PingWait& wait = node.Pings[key];
  wait.nodeID = nodeID;
  wait.done = std::move(done);
  wait.deadline = std::make_unique<Timer>([&node, key] {
    EndPing(node, key, std::chrono::microseconds(-1));
  });
  wait.deadline->SetInterval(timeoutMs);
  wait.deadline->Enable(true);
  if (FindCachedNode(node, nodeID) >= 0) {
    SendPing(node, wait);
    return;
  }
  // A node not heard of yet is asked first, within the same time-out.
  typMessage whois = MakeMessage("WHOIS", nodeID);
  SendPacket(node, whois);
}

int32_t PingNode(RoutingNode& node, const std::string& nodeID, int32_t timeoutMs) {
  // Shared with the wait: a node shut down meanwhile drops it uncalled, and
  // this wait then ends at its own deadline.
  auto result = std::make_shared<std::optional<PingResult>>();
  StartPing(node, nodeID, timeoutMs, [result](PingResult r) { *result = r; });
  // The ping's deadline ends it; the margin only lets that timer run first.
  constexpr int64_t kMarginMs = 1000;
  RunUntil([&] { return result->has_value(); }, int64_t{timeoutMs} + kMarginMs);
  if (result->has_value() && !(*result)->resolved) {
    throw QelError(errors::kNotInitialised, "Ping", "Cannot ping unresolved node");
  }
  const auto rtt = result->has_value() ? (*result)->rtt : std::chrono::microseconds(-1);
  return rtt.count() < 0 ? -1 : static_cast<int32_t>(rtt.count() / 1000);
}

void DropPings(RoutingNode& node) {
  node.Pings.clear();
}

void OnWhois(RoutingNode& node, const typMessage& message) {
  SendInfo(node, GetSingleField(message.Fields, "Source"));
}

namespace {

// On a secure link a neighbour's node ID is bound to its key: another key announcing the
// same node ID, on another link or later, would take over the routes and answers meant for
// the first. Such a link is closed and false returned.
bool KeyFits(RoutingNode& node, const std::string& sender, LinkId conn) {
  if (sender.empty()) return true;
  const std::string key = links::PeerKey(conn);
  if (key.empty()) return true;  // plaintext (or gone): no key to bind
  std::string bound;
  for (LinkId other : links::UpLinks(node)) {
    const std::string& otherKey = links::PeerKey(other);
    if (other != conn && links::PeerNode(other) == sender && !otherKey.empty() && otherKey != key) {
      bound = otherKey;
      break;
    }
  }
  if (bound.empty()) bound = node.BoundKeys.Bind(sender, key);
  if (bound.empty()) return true;
  node.Counters.Refused(Refusal::KeyMismatch);
  links::CloseRefused(conn,
                      "Connection to " + links::Info(conn).Address + " closed: node " + sender +
                          " announced itself with key " + key +
                          ", but that node ID is bound to key " + bound,
                      RefusalName(Refusal::KeyMismatch));
  return false;
}

}  // namespace

void OnInfo(RoutingNode& node, const typMessage& message, LinkId conn) {
  InfoRoom room;
  const std::string sender = room.Take(GetSingleField(message.Fields, "Source"));
  if (GetSingleField(message.Fields, "Hops") == "0" && !KeyFits(node, sender, conn)) return;
  const int32_t index = node.NodeCache.FindOrAdd(sender);
  cSettings body;
  try {
    body.LoadXML(message.Body);
  } catch (...) {
    // What was read stays; unreadable values come back empty.
  }
  NodeEntry& entry = node.NodeCache[index];
  NodeStrings strings;
  strings.ID = sender;
  // What a node needs to reach and read the other first, what it shows last.
  strings.Address = room.Take(ReadText(body, "Address"));
  strings.EncryptionKey = room.Take(ReadText(body, "Encryption-Key"));
  strings.Name = room.Take(ReadText(body, "Name"));
  strings.activeUser = room.Take(ReadText(body, "Active-User"));
  strings.Descriptor = room.Take(ReadText(body, "Descriptor"));
  try {
    entry.Role = static_cast<enmRole>(Variant(ReadText(body, "Role")).toInt32());
  } catch (...) {
    entry.Role = role_Peer;
  }
  try {
    entry.sharingFiles = Variant(ReadText(body, "Sharing-Files")).toBool();
  } catch (...) {
    entry.sharingFiles = false;
  }
  entry.directConn = GetSingleField(message.Fields, "Hops") == "0";
  entry.InfoSerial = ++node.InfoCount;
  entry.InfoTick = TickCount();
  if (entry.directConn && conn) {
    // A neighbour is recorded under the address it is actually reached at,
    // with the port it advertises.
    std::string port;
    if (size_t colon = strings.Address.rfind(':'); colon != std::string::npos) {
      port = strings.Address.substr(colon + 1);
    }
    // A peer that advertises no usable port keeps the name its link had,
    // so its close never names an address without a port.
    const bool usable =
        !port.empty() && port.size() <= 5 &&
        std::all_of(port.begin(), port.end(), [](char ch) { return ch >= '0' && ch <= '9'; });
    if (!usable) port.clear();
    if (std::string address = links::SetPeerNode(conn, sender, port); !address.empty()) {
      strings.Address = std::move(address);
    }
  }
  entry.SetStrings(std::move(strings));
  RememberKnownNode(entry);
  if (room.cut) {
    ReportRefusal(node, Refusal::NodeCache,
                  "INFO: values past " + std::to_string(kMaxInfoBytes) + " bytes in all cut",
                  sender);
  }
  if (!node.Pings.empty()) PingWhenKnown(node, sender);
}

void OnPing(RoutingNode& node, const typMessage& message) {
  SendWithReqID(node, "PONG", std::string(ReceivedField(message, &WireIndex::source, "Source")),
                std::string(ReceivedField(message, &WireIndex::reqID, "ReqID")));
}

void OnPong(RoutingNode& node, const typMessage& message) {
  const std::string_view source = ReceivedField(message, &WireIndex::source, "Source");
  const std::string_view reqID = ReceivedField(message, &WireIndex::reqID, "ReqID");
  for (const auto& [key, wait] : node.Pings) {
    if (!wait.reqID.empty() && wait.reqID == reqID && wait.nodeID == source) {
      EndPing(node, key,
              std::chrono::duration_cast<std::chrono::microseconds>(
                  std::chrono::steady_clock::now() - wait.start));
      return;
    }
  }
}

}  // namespace qel
