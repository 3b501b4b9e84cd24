#include "net/connections.h"

#include <malloc.h>

#include <cctype>
#include <cerrno>

#include <algorithm>
#include <utility>

#include <qel/error.h>
#include <qel/event_loop.h>
#include <qel/variant.h>

#include "core/debug_log.h"
#include "core/fault.h"
#include "core/stats.h"
#include "core/text.h"
#include "net/memory_budget.h"

namespace qel {
namespace {

constexpr int32_t kUpkeepIntervalMs = 5000;
constexpr size_t kTrimAfterBytes = 1 << 20;

std::shared_ptr<LinkOwner> Lock(const std::weak_ptr<LinkOwner>& owner) {
  auto node = owner.lock();
  return node && node->Alive() ? node : nullptr;
}

// What a queued message costs: its text, and a little for its record.
size_t MessageBytes(const typMessage& message) {
  return message.Header.capacity() + message.Body.capacity() + message.Wire.capacity() + 256;
}

std::string PeerOf(const Connection& c) {
  if (!c.Peer.empty()) return c.Peer;
  return c.Address.empty() ? c.sck->RemoteHost() : c.Address;
}

// Names the dial's failure for the host.
DialResult DialFailure(const std::error_code& ec, int32_t timeoutMs) {
  if (!ec) return {DialFault::Other, "closed before it came up"};
  switch (ClassifyConnectError(ec)) {
    case ConnectFailure::Lookup:
      return {DialFault::Unresolvable, "host not found (" + ec.message() + ")"};
    case ConnectFailure::Refused:
      return {DialFault::Refused, "connection refused"};
    case ConnectFailure::TimedOut:
      return {DialFault::TimedOut, "no connection within " + std::to_string(timeoutMs) + " ms"};
    case ConnectFailure::Other:
      break;
  }
  return {DialFault::Other, ec.message()};
}

bool IsHostChar(char ch) {
  return std::isalnum(static_cast<unsigned char>(ch)) || ch == '.' || ch == '-' || ch == '_' ||
         ch == ':';
}

// Restores a nesting counter however the scope is left.
class DepthGuard {
 public:
  DepthGuard(int& a, int& b) : a_(a), b_(b) {
    ++a_;
    ++b_;
  }
  ~DepthGuard() {
    --a_;
    --b_;
  }
  DepthGuard(const DepthGuard&) = delete;
  DepthGuard& operator=(const DepthGuard&) = delete;

 private:
  int& a_;
  int& b_;
};

}  // namespace

void Inbox::push_back(typMessage&& message) {
  if (head_ >= kKeep && 2 * head_ >= items_.size()) {
    items_.erase(items_.begin(), items_.begin() + static_cast<std::ptrdiff_t>(head_));
    head_ = 0;
  }
  items_.push_back(std::move(message));
}

typMessage Inbox::take_front() {
  typMessage message = std::move(items_[head_++]);
  if (head_ == items_.size()) {
    if (items_.capacity() > kKeep) {
      Release();
    } else {
      items_.clear();
      head_ = 0;
    }
  }
  return message;
}

void Inbox::Release() {
  std::vector<typMessage>().swap(items_);
  head_ = 0;
}

Connections& Connections::Get() {
  static Connections* table = new Connections;  // sockets outlive static destruction
  return *table;
}

Connections::Connections()
    : conns_(1), upkeep_([this] { UpkeepTick(); }), sweep_([this] { SweepStalled(); }) {
  upkeep_.SetInterval(kUpkeepIntervalMs);
  upkeep_.Enable(true);
  sweep_.SetInterval(kSweepIntervalMs);
  sweep_.Enable(true);
}

bool Connections::IsConnected(int32_t index) const {
  return index >= 1 && index < static_cast<int32_t>(conns_.size()) && conns_[index]->up &&
         conns_[index]->sck->State() == SocketState::Connected;
}

const std::string& Connections::PeerKey(int32_t index) const {
  static const std::string none;
  return IsConnected(index) ? conns_[index]->stream.PeerKey() : none;
}

int32_t Connections::HandshakeMs(const LinkLimits& limits) {
  // The dial's own timeout is often a few hundred ms, too short for a handshake on a busy
  // host; a peer that holds a half-open link longer than this is dropped.
  return std::max(limits.connectTimeoutMs, 5000);
}

void Connections::ReleaseBuffers(Connection& c) {
  // Swapped, not assigned: assigning an empty message to a long one would
  // keep the long one's buffers.
  MessageFeeder fresh(
      {.maxHeader = 65536, .maxMessage = c.limits.maxMessage, .keepPlainAsBytes = true});
  std::swap(c.Partial, fresh);
  c.inbox.Release();
  c.inboxBytes = 0;
  c.drainPending = false;
  c.backlogFull = false;
}

int32_t Connections::GetFreeSocket(LinkOwner& owner, const LinkLimits& limits) {
  int32_t index = 0;
  for (int32_t i = 1; i < static_cast<int32_t>(conns_.size()); ++i) {
    Connection& c = *conns_[i];
    if (c.sck->State() == SocketState::Closed && !c.Maintain && c.draining == 0) {
      index = i;
      break;
    }
  }
  if (index == 0) {
    conns_.push_back(std::make_unique<Connection>());
    index = Count();
  }
  SetOwner(index, owner);
  Connection& c = *conns_[index];
  c.limits = limits;
  c.NodeID.clear();
  c.Address.clear();
  c.Peer.clear();
  c.dialError.clear();
  c.Maintain = false;
  c.accepted = false;
  c.redial = false;
  c.stream = LinkTransform();
  c.up = false;
  c.plainOnly = false;
  c.dialWaiting = false;
  c.dialFault.clear();
  c.holdRedial = false;
  ReleaseBuffers(c);
  ++c.generation;
  Attach(index);
  return index;
}

void Connections::SetOwner(int32_t index, LinkOwner& owner) {
  Connection& c = *conns_[index];
  if (auto previous = Lock(c.Owner)) std::erase(previous->Links, index);
  c.Owner = owner.weak_from_this();
  auto at = std::lower_bound(owner.Links.begin(), owner.Links.end(), index);
  owner.Links.insert(at, index);
}

void Connections::Attach(int32_t index) {
  Connection& c = *conns_[index];
  const uint64_t generation = c.generation;
  c.sck->SetHandlers({
      .onConnected = [this, index] { OnConnected(index); },
      .onData = [this, index,
                 generation](std::string_view data) { OnData(index, generation, data); },
      .onPeerClosed = [this, index] { OnPeerClosed(index); },
      .onError =
          [this, index](const std::error_code& ec) {
            // A failed re-dial parks the element for the next upkeep tick; a
            // waiting ConnectTo sees the state itself.
            Connection& failed = *conns_[index];
            failed.dialError = ec;
            if (failed.redial) failed.sck->Close();
          },
      .onSent =
          [this, index](size_t n) {
            TheStats().OutBytesAcc += static_cast<int64_t>(n);
            if (!conns_[index]->drainWaiters.empty()) WakeDrainWaiters(index, false);
          },
      // A large body is read where it is going, not copied there.
      .onReadRoom = [this, index, generation] { return ReadRoom(index, generation); },
      .onDirect = [this, index, generation](size_t n) { OnDirect(index, generation, n); },
      .onFlush = [this, index, generation] { Seal(index, generation); },
  });
}

void Connections::OnConnected(int32_t index) {
  Connection& c = *conns_[index];
  auto owner = Lock(c.Owner);
  if (!owner) return;
  c.lastByteTick = c.upTick = TickCount();
  c.sck->SetKeepAlive(c.limits.keepAliveSec);
  c.stream = LinkTransform::Dialled(c.limits.security, c.plainOnly);
  if (c.stream.Failed()) return EndBeforeUp(index, c.stream.Why(), false);
  if (c.stream.Seals()) {
    c.sck->RequestFlush();  // the ClientHello; the link is up once the handshake is done
    return;
  }
  LinkUp(index, c.generation);
}

bool Connections::LinkUp(int32_t index, uint64_t generation) {
  Connection& c = *conns_[index];
  auto owner = Lock(c.Owner);
  if (!owner) return false;
  c.up = true;
  c.upTick = TickCount();
  const LinkKind kind = c.accepted ? LinkKind::Accepted
                        : c.redial ? LinkKind::Redialled
                                   : LinkKind::Dialled;
  c.redial = false;
  owner->OnLinkUp({index, c.generation}, kind, c.accepted ? c.sck->RemoteHost() : c.Address);
  return c.generation == generation && IsConnected(index);
}

void Connections::OnData(int32_t index, uint64_t generation, std::string_view data) {
  Connection& c = *conns_[index];
  auto owner = Lock(c.Owner);
  if (!owner) return;
  TheStats().InBytesAcc += static_cast<int64_t>(data.size());
  c.lastByteTick = TickCount();
  if (c.backlogFull) return;  // closing: what it sends no longer matters
  if (c.stream.Transforms()) return OnTransformed(index, generation, data);
  FeedPlain(index, generation, data);
}

void Connections::OnTransformed(int32_t index, uint64_t generation, std::string_view data) {
  Connection& c = *conns_[index];
  const LinkTransform::Step step = c.stream.Feed(data);
  // Handshake answers and alerts leave with the next flush, as sealed data does.
  if (c.stream.Seals()) c.sck->RequestFlush();
  switch (step) {
    case LinkTransform::Step::Wait:
      return;
    case LinkTransform::Step::Pass:
      return FeedPlain(index, generation, data);
    case LinkTransform::Step::UpPlain: {
      const std::string bytes(data);  // the owner may run the loop before they are fed
      if (LinkUp(index, generation)) FeedPlain(index, generation, bytes);
      return;
    }
    case LinkTransform::Step::Up: {
      const std::string plain = c.stream.TakePlain();
      if (LinkUp(index, generation) && !plain.empty()) FeedPlain(index, generation, plain);
      return;
    }
    case LinkTransform::Step::Data: {
      const std::string plain = c.stream.TakePlain();
      if (!plain.empty()) FeedPlain(index, generation, plain);
      return;
    }
    case LinkTransform::Step::Failed:
      break;
  }
  if (!c.up) return EndBeforeUp(index, c.stream.Why(), true);
  // A peer may send its last messages and end the session at once: they are still its.
  if (const std::string plain = c.stream.TakePlain(); !plain.empty()) {
    FeedPlain(index, generation, plain);
    if (c.generation != generation || !IsConnected(index)) return;
  }
  if (std::string alert = c.stream.TakeOutput(); !alert.empty()) c.sck->SendOwned(std::move(alert));
  CloseRefused(index, "Connection to " + PeerOf(c) + " closed: " + c.stream.Why());
}

void Connections::FeedPlain(int32_t index, uint64_t generation, std::string_view data) {
  Connection& c = *conns_[index];
  if (TheDebugLog().Enabled()) {
    DebugLine(">> INCOMING >>>>>>>>>>");
    DebugLine(data);
  }
  auto outcome = c.Partial.Feed(data, [&](typMessage&& message) {
    c.inboxBytes += MessageBytes(message);
    c.inbox.push_back(std::move(message));
  });
  if (outcome != MessageFeeder::Outcome::Ok) {
    CloseWithFault(index, generation,
                   outcome == MessageFeeder::Outcome::HeaderTooLong
                       ? "Connection to " + PeerOf(c) + " closed: header longer than 65536 bytes"
                       : "Connection to " + PeerOf(c) + " closed: message longer than " +
                             std::to_string(c.limits.maxMessage) + " bytes");
    return;
  }
  AfterFeed(index, generation);
}

std::span<char> Connections::ReadRoom(int32_t index, uint64_t generation) {
  Connection& c = *conns_[index];
  // Bytes a transform must see first are never read past it.
  if (c.generation != generation || c.backlogFull || c.stream.Transforms() || !Lock(c.Owner)) {
    return {};
  }
  return c.Partial.BodyRoom();
}

void Connections::OnDirect(int32_t index, uint64_t generation, size_t n) {
  Connection& c = *conns_[index];
  if (c.generation != generation) return;
  TheStats().InBytesAcc += static_cast<int64_t>(n);
  if (TheDebugLog().Enabled()) {
    // The room starts where these bytes were put until they are counted.
    DebugLine(">> INCOMING >>>>>>>>>>");
    DebugLine(std::string_view(c.Partial.BodyRoom().data(), n));
  }
  c.lastByteTick = TickCount();
  c.Partial.FeedDirect(n, [&](typMessage&& message) {
    c.inboxBytes += MessageBytes(message);
    c.inbox.push_back(std::move(message));
  });
  AfterFeed(index, generation);
}

void Connections::AfterFeed(int32_t index, uint64_t generation) {
  Connection& c = *conns_[index];
  // Messages waiting behind a busy handler are bounded like one more
  // message: past that the peer waits in TCP's flow control.
  if (c.inboxBytes > static_cast<size_t>(std::max<int64_t>(c.limits.maxMessage, 0)) + 65536) {
    c.sck->PauseReading();
  } else {
    // data is consumed: let the socket read on, so that a handler waiting
    // for an answer on this connection can receive it.
    c.sck->ResumeReading();
  }
  CheckBudget(index);
  if (c.generation != generation) return;
  Drain(index, generation);
}

void Connections::Drain(int32_t index, uint64_t generation) {
  Connection& c = *conns_[index];
  auto owner = Lock(c.Owner);
  if (!owner) return;
  if (c.draining >= kMaxDepthPerConnection || depth_ >= kMaxDepth) {
    // An outer round of this connection takes them when its handler returns;
    // a connection with no round running is drained once the nesting unwinds.
    if (c.draining == 0 && !c.drainPending) {
      c.drainPending = true;
      pendingDrains_.push_back(index);
    }
    return;
  }
  {
    DepthGuard guard(c.draining, depth_);
    while (!c.inbox.empty() && c.generation == generation &&
           c.sck->State() == SocketState::Connected && owner->Alive()) {
      typMessage message = c.inbox.take_front();
      c.inboxBytes -= std::min(c.inboxBytes, MessageBytes(message));
      if (c.inbox.empty()) c.sck->ResumeReading();
      DebugLine("** PROCESS ");
      try {
        owner->OnLinkMessage({index, generation}, std::move(message));
      } catch (...) {
        // Nothing a peer sends may unwind the loop: this connection goes,
        // the node and its other connections stay.
        std::string text = "Connection to " + PeerOf(c) + " closed: " + DescribeCurrentFault();
        CloseWithFault(index, generation, text);
        break;
      }
    }
  }
  // What is left belongs to a link that was closed or taken again.
  if (c.generation == generation && c.sck->State() != SocketState::Connected && c.draining == 0) {
    ReleaseBuffers(c);
  }
  if (depth_ < kMaxDepth) DrainPending();
}

void Connections::DrainPending() {
  // Only the connections that wait: every read ends here, and a table of
  // thousands of links must not be walked each time.
  std::vector<int32_t> waiting;
  waiting.swap(pendingDrains_);
  for (int32_t i : waiting) {
    Connection& c = *conns_[i];
    if (!c.drainPending) continue;  // released meanwhile
    c.drainPending = false;
    // From the loop, not from here: the caller is itself a handler.
    Post([this, i, generation = c.generation] {
      if (conns_[i]->generation == generation) Drain(i, generation);
    });
  }
}

int32_t Connections::ListenOnPort(LinkOwner& owner, int32_t port, const std::string& address,
                                  const LinkLimits& limits) {
  size_t reuse = listeners_.size();
  for (size_t i = 0; i < listeners_.size(); ++i) {
    auto& entry = listeners_[i];
    if (entry.sck->State() != SocketState::Closed) {
      if (port != 0 && entry.sck->LocalPort() == port) {
        throw QelError(errors::kListenPortInUse, "ListenOnPort", "Listen port already in use");
      }
    } else if (reuse == listeners_.size()) {
      reuse = i;
    }
  }
  if (reuse == listeners_.size()) {
    listeners_.push_back(
        {std::make_unique<Listener>(
             [this, reuse](std::unique_ptr<Socket> s) { OnAccept(reuse, std::move(s)); },
             [this, reuse](const std::error_code& ec) {
               auto& entry = listeners_[reuse];
               if (auto owner = Lock(entry.Owner)) {
                 owner->OnLinkFault("Accepting on port " + std::to_string(entry.sck->LocalPort()) +
                                    " paused: " + ec.message());
               }
             }),
         {},
         {}});
  }
  auto& entry = listeners_[reuse];
  entry.Owner = owner.weak_from_this();
  entry.limits = limits;
  entry.refusing = false;
  if (port < 0 || port > 65535) return 0;
  if (auto ec = entry.sck->Listen(static_cast<uint16_t>(port), address)) {
    // Errno values, whatever the category: the address itself is wrong.
    if (!address.empty() && (ec.value() == EINVAL || ec.value() == EADDRNOTAVAIL)) {
      owner.OnLinkFault("Cannot listen on address '" + address + "': " + ec.message());
    }
    return 0;
  }
  return entry.sck->LocalPort();
}

int32_t Connections::OpenCount(const LinkOwner& owner) const {
  int32_t open = 0;
  for (int32_t i : owner.Links) {
    if (conns_[i]->sck->State() != SocketState::Closed) ++open;
  }
  return open;
}

void Connections::OnAccept(size_t listener, std::unique_ptr<Socket> socket) {
  auto& entry = listeners_[listener];
  auto owner = Lock(entry.Owner);
  if (!owner) return;
  std::string source = socket->RemoteHost();
  if (OpenCount(*owner) >= entry.limits.maxConnections) {
    TheStats().Refused(Refusal::Connections);
    // Refused before the host is asked; said once until one is accepted again.
    if (!entry.refusing) {
      entry.refusing = true;
      owner->OnLinkFault("Connection from " + source +
                         " refused: " + std::to_string(entry.limits.maxConnections) +
                         " connections are open (maxConnections)");
    }
    return;
  }
  entry.refusing = false;
  if (owner->OnLinkRequest(source)) return;  // refused: the socket closes here
  if (!owner->Alive() || socket->State() != SocketState::Connected) return;
  const std::string peer = socket->RemoteHost() + ":" + std::to_string(socket->RemotePort());
  socket->SetKeepAlive(entry.limits.keepAliveSec);
  Adopt(*owner, std::move(socket), true, entry.limits, peer);
}

int32_t Connections::Adopt(LinkOwner& owner, std::unique_ptr<Socket> socket, bool accepted,
                           const LinkLimits& limits, const std::string& peer) {
  const int32_t index = GetFreeSocket(owner, limits);
  Connection& c = *conns_[index];
  c.sck = std::move(socket);
  c.Peer = peer;
  c.lastByteTick = c.upTick = TickCount();
  c.accepted = accepted;
  Attach(index);
  if (!accepted) {
    OnConnected(index);
    return index;
  }
  // In a secure mode the peer's first byte says what the link is, and nothing is sent
  // before it: a plaintext peer of a node that requires TLS must get nothing readable.
  c.stream = LinkTransform::Accepted(limits.security);
  if (c.stream.Ready()) LinkUp(index, c.generation);
  return index;
}

DialTarget ParseDialAddress(std::string_view address, int32_t defaultPort) {
  DialTarget target;
  auto malformed = [&target](std::string why) {
    target.fault = {DialFault::Malformed, "malformed address (" + std::move(why) + ")"};
    return target;
  };
  std::string_view host = Trim(address);
  if (host.empty()) return malformed("blank");
  int32_t port = defaultPort;
  // Without a port the node dials its own listen port, as other nodes do.
  if (size_t colon = host.rfind(':'); colon != std::string_view::npos) {
    try {
      port = Variant(std::string(host.substr(colon + 1))).toInt32();
    } catch (const QelError&) {
      return malformed("the port is not a number");
    }
    host = Trim(host.substr(0, colon));
    // An explicit 0 is dialled as classic nodes did, and refused by the system.
    if (port < 0 || port > 65535) return malformed("the port is not from 0 to 65535");
  } else if (port < 1 || port > 65535) {
    return malformed("no port, and the node listens on none to dial instead");
  }
  if (host.empty() || !std::all_of(host.begin(), host.end(), IsHostChar)) {
    return malformed("the host is not a name or an IP address");
  }
  target.host = host;
  target.port = static_cast<uint16_t>(port);
  return target;
}

bool Connections::StartDial(int32_t index, bool redial) {
  Connection& c = *conns_[index];
  const DialTarget target = ParseDialAddress(c.Address, c.limits.defaultPort);
  if (target.fault.fault != DialFault::None) {
    if (auto owner = Lock(c.Owner)) {
      owner->OnLinkFault("Connect to " + c.Address + " failed: " + target.fault.why);
    }
    c.Maintain = false;
    return false;
  }
  ReleaseBuffers(c);
  c.redial = redial;
  c.dialError.clear();
  c.stream = LinkTransform();
  c.up = false;
  c.holdRedial = false;
  c.Peer = target.host + ":" + std::to_string(target.port);
  c.sck->Connect(target.host, target.port, c.limits.connectTimeoutMs);
  return true;
}

DialResult Connections::ConnectTo(LinkOwner& owner, const std::string& address, bool maintain,
                                  const LinkLimits& limits) {
  const DialTarget target = ParseDialAddress(address, limits.defaultPort);
  if (target.fault.fault != DialFault::None) return target.fault;
  const int32_t index = GetFreeSocket(owner, limits);
  Connection& c = *conns_[index];
  c.Maintain = maintain;
  c.Address = address;
  const uint64_t generation = c.generation;
  c.dialWaiting = true;
  c.dialFault.clear();
  StartDial(index, false);
  // A secure dial may connect twice (a prefer dial falling back) and hand-shake once; the
  // sweep that ends a handshake runs once a second.
  const int64_t wait = limits.security.mode == SecureMode::Off
                           ? int64_t{limits.connectTimeoutMs} + 1000
                           : 2 * (int64_t{limits.connectTimeoutMs} + HandshakeMs(limits)) + 2000;
  RunUntil(
      [&] {
        auto state = c.sck->State();
        return c.generation != generation || c.up ||
               (state != SocketState::Connecting && state != SocketState::Connected);
      },
      wait);
  if (c.generation != generation) return DialFailure({}, limits.connectTimeoutMs);
  c.dialWaiting = false;
  const SocketState state = c.sck->State();
  if (state == SocketState::Connected && c.up) return {};
  if (!c.dialFault.empty()) return {DialFault::Other, std::exchange(c.dialFault, {})};
  if (state == SocketState::Connected) {
    EndBeforeUp(index, {}, false);
    return {DialFault::TimedOut,
            "no TLS handshake within " + std::to_string(HandshakeMs(limits)) + " ms"};
  }
  DialResult failure =
      state == SocketState::Connecting
          ? DialFailure(std::make_error_code(std::errc::timed_out), limits.connectTimeoutMs)
          : DialFailure(c.dialError, limits.connectTimeoutMs);
  c.sck->Close();
  return failure;
}

void Connections::Redial(int32_t index) {
  Connection& c = *conns_[index];
  auto owner = Lock(c.Owner);
  if (!owner) return;
  StartDial(index, true);
}

void Connections::CloseConnection(int32_t index, bool stopMaintaining) {
  Connection& c = *conns_[index];
  if (c.sck->State() == SocketState::Closed) return;
  if (stopMaintaining) c.Maintain = false;
  if (!c.up) return EndBeforeUp(index, {}, false);  // the owner never heard of it
  const size_t held = HeldBytes(index);
  // An accepted link whose peer never said where it listens is named by its IP.
  const std::string address = PeerOf(c);
  c.sck->Close();
  c.up = false;
  c.stream = LinkTransform();
  WakeDrainWaiters(index, true);
  if (c.draining == 0) ReleaseBuffers(c);
  // The allocator keeps large freed blocks for reuse; after a connection
  // that held a lot, hand them back so the process shrinks again.
  if (held >= kTrimAfterBytes) malloc_trim(0);
  // The element may come back to another node at the same address: what
  // it knew of this peer goes now, so neither routing nor a later close
  // names the old one.
  const std::string nodeID = std::exchange(c.NodeID, {});
  auto owner = Lock(c.Owner);
  if (!owner) return;
  owner->OnLinkDown({index, c.generation}, address, nodeID);
  if (c.Maintain && !c.holdRedial && owner->Alive() && c.sck->State() == SocketState::Closed) {
    Redial(index);
  }
}

void Connections::CloseRefused(int32_t index, const std::string& text) {
  conns_[index]->holdRedial = true;
  CloseWithFault(index, conns_[index]->generation, text);
}

void Connections::OnPeerClosed(int32_t index) {
  Connection& c = *conns_[index];
  if (c.up) return CloseConnection(index, false);
  // An accepted link that closes before it said anything is not worth an Error.
  EndBeforeUp(index, c.accepted ? "" : "the peer closed the link during the TLS handshake", true);
}

void Connections::EndBeforeUp(int32_t index, std::string why, bool fallBack) {
  Connection& c = *conns_[index];
  if (c.sck->State() == SocketState::Closed) return;
  if (fallBack && c.stream.MayFallBack()) {
    DebugLine("Connection to " + PeerOf(c) + ": no TLS there, dialled again in plaintext");
    c.plainOnly = true;
    c.sck->Close();
    StartDial(index, c.redial);
    return;
  }
  const std::string peer = PeerOf(c);
  // An alert tells the peer why; a maintained link is dialled again by the upkeep tick.
  if (std::string alert = c.stream.TakeOutput(); !alert.empty()) c.sck->SendOwned(std::move(alert));
  c.sck->Close();
  c.stream = LinkTransform();
  WakeDrainWaiters(index, true);
  if (c.draining == 0) ReleaseBuffers(c);
  if (why.empty()) return;
  if (c.dialWaiting) {
    c.dialFault = why;
  } else if (auto owner = Lock(c.Owner)) {
    owner->OnLinkFault("Connection to " + peer + " closed: " + why);
  }
}

void Connections::CloseWithFault(int32_t index, uint64_t generation, const std::string& text) {
  Connection& c = *conns_[index];
  if (c.generation != generation) return;
  if (auto owner = Lock(c.Owner)) {
    owner->OnLinkFault(text);
    // The handler may have shut the node down or closed the link itself.
    if (c.generation != generation) return;
  }
  CloseConnection(index, false);
}

void Connections::CloseLater(int32_t index, std::string text) {
  // Closed from the loop: the writer may be in the middle of a flood or a
  // handler, and closing raises events.
  Post([this, index, generation = conns_[index]->generation, text = std::move(text)] {
    Connection& c = *conns_[index];
    if (c.generation != generation || !c.backlogFull) return;
    if (c.sck->State() != SocketState::Connected) return;
    CloseWithFault(index, generation, text);
  });
}

void Connections::UpkeepTick() {
  for (int32_t i = 1; i < static_cast<int32_t>(conns_.size()); ++i) {
    Connection& c = *conns_[i];
    if (c.sck->State() == SocketState::Closed && c.Maintain) Redial(i);
  }
}

void Connections::SweepStalled() {
  const int64_t now = TickCount();
  for (int32_t i = 1; i < static_cast<int32_t>(conns_.size()); ++i) {
    Connection& c = *conns_[i];
    if (c.sck->State() != SocketState::Connected) continue;
    if (!c.up) {
      const int32_t limit = HandshakeMs(c.limits);
      if (now - c.upTick < limit || !Lock(c.Owner)) continue;
      if (c.stream.AssumePlain()) {
        LinkUp(i, c.generation);
      } else {
        EndBeforeUp(i, "no TLS handshake within " + std::to_string(limit) + " ms", true);
      }
      continue;
    }
    if (!c.Partial.InProgress()) continue;
    if (now - c.lastByteTick < c.limits.stallTimeoutMs) continue;
    // A sender that stops in the middle of a message holds a descriptor and
    // a buffer for nothing: the slowloris pattern.
    TheStats().Refused(Refusal::Stall);
    CloseWithFault(i, c.generation,
                   "Connection to " + PeerOf(c) + " closed: nothing received for " +
                       std::to_string(c.limits.stallTimeoutMs) + " ms in the middle of a message");
  }
}

size_t Connections::HeldBytes(int32_t index) const {
  const Connection& c = *conns_[index];
  return c.sck->BufferBytes() + c.stream.PendingBytes() + c.Partial.BufferedBytes() +
         c.inboxBytes;
}

size_t Connections::Waiting(const Connection& c) const {
  return c.sck->QueuedBytes() + c.stream.PendingBytes();
}

void Connections::CheckBudget(int32_t index, size_t incoming) {
  const Connection& c = *conns_[index];
  const MemoryBudget budget(c.limits.memoryBudget, c.limits.maxConnections);
  if (budget.WithinShare(HeldBytes(index) + incoming)) return;
  std::vector<MemoryBudget::Holding> links;
  links.reserve(conns_.size());
  for (int32_t i = 1; i < static_cast<int32_t>(conns_.size()); ++i) {
    const Connection& other = *conns_[i];
    // Connections already on their way out no longer count.
    links.push_back({.link = i,
                     .bytes = HeldBytes(i),
                     .counted = other.sck->State() != SocketState::Closed && !other.backlogFull});
  }
  for (const MemoryBudget::Close& close : budget.ToClose(links, index, incoming)) {
    Connection& victim = *conns_[close.link];
    victim.backlogFull = true;
    TheStats().Refused(Refusal::Memory);
    // It closes on the next turn of the loop; what it holds goes now, or a
    // burst of writes would pile up behind every victim of this turn.
    victim.sck->DiscardQueued();
    victim.stream.DiscardPending();
    victim.Partial.Reset();
    if (victim.draining == 0) {
      victim.inbox.Release();
      victim.inboxBytes = 0;
    }
    CloseLater(close.link,
               "Connection to " + PeerOf(victim) + " closed: it held " +
                   std::to_string(close.held) + " of the " + std::to_string(close.total) +
                   " bytes the node keeps for its connections, more than memoryBudget (" +
                   std::to_string(budget.Limit()) + ")");
  }
}

bool Connections::HasOpenLink(const LinkOwner& owner) const {
  return std::any_of(owner.Links.begin(), owner.Links.end(),
                     [this](int32_t i) { return IsConnected(i); });
}

std::vector<typLinkInfo> Connections::OpenLinks(const LinkOwner& owner) const {
  std::vector<typLinkInfo> links;
  for (int32_t i : owner.Links) {
    if (IsConnected(i)) links.push_back(LinkInfo(i));
  }
  return links;
}

std::vector<LinkId> Connections::UpLinks(const LinkOwner& owner) const {
  std::vector<LinkId> links;
  for (int32_t i : owner.Links) {
    if (IsConnected(i)) links.push_back(Id(i));
  }
  return links;
}

std::string Connections::SetPeerNode(int32_t index, const std::string& nodeID,
                                     std::string_view port) {
  Connection& c = *conns_[index];
  c.NodeID = nodeID;
  if (!port.empty()) {
    std::string ip = c.sck->RemoteHost();
    if (ip.empty()) ip = c.Peer.substr(0, c.Peer.rfind(':'));  // the link broke meanwhile
    c.Address = ip + ":" + std::string(port);
    c.Peer = c.Address;
  }
  return c.Address;
}

typLinkInfo Connections::LinkInfo(int32_t index) const {
  typLinkInfo link;
  if (!IsConnected(index)) return link;
  const Connection& c = *conns_[index];
  link.Index = index;
  link.Address = PeerOf(c);
  link.nodeID = c.NodeID;
  link.isAccepted = c.accepted;
  link.isSecure = c.stream.Secure();
  link.PeerKey = c.stream.PeerKey();
  link.lngAge = (TickCount() - c.upTick) / 1000;
  return link;
}

int32_t Connections::ConnectionOfNode(const LinkOwner& owner, std::string_view nodeID) const {
  if (nodeID == "BROADCAST") return 0;
  for (int32_t i : owner.Links) {
    if (conns_[i]->NodeID == nodeID) return i;
  }
  return 0;
}

size_t Connections::QueuedBytes(int32_t index) const {
  return IsConnected(index) ? Waiting(*conns_[index]) : 0;
}

int32_t Connections::FullestConnection(const LinkOwner& owner) const {
  int32_t fullest = 0;
  size_t most = 0;
  for (int32_t i : owner.Links) {
    if (const size_t queued = QueuedBytes(i); queued > most) {
      most = queued;
      fullest = i;
    }
  }
  return fullest;
}

void Connections::WhenDrained(int32_t index, size_t below, std::function<void()> fn) {
  if (!IsConnected(index) || Waiting(*conns_[index]) < below) {
    Post(std::move(fn));
    return;
  }
  conns_[index]->drainWaiters.push_back({below, std::move(fn)});
}

void Connections::WakeDrainWaiters(int32_t index, bool all) {
  auto& waiters = conns_[index]->drainWaiters;
  const size_t queued = Waiting(*conns_[index]);
  // Taken out before any runs: a waiter usually queues more and waits again.
  std::vector<Connection::DrainWaiter> ready;
  std::erase_if(waiters, [&](Connection::DrainWaiter& w) {
    if (!all && queued >= w.below) return false;
    ready.push_back(std::move(w));
    return true;
  });
  for (auto& w : ready) Post(std::move(w.fn));
}

void Connections::Write(int32_t index, std::string_view text) {
  if (Admit(index, text)) Send(index, {&text, 1});
}

void Connections::WriteOwned(int32_t index, std::string&& text) {
  if (!Admit(index, text)) return;
  Connection& c = *conns_[index];
  if (c.stream.Seals()) {
    c.stream.WriteOwned(std::move(text));
    c.sck->RequestFlush();
  } else {
    c.sck->SendOwned(std::move(text));
  }
  LimitBacklog(index);
}

void Connections::WriteOwned(int32_t index, std::string&& header, std::string&& body) {
  if (!Admit(index, header, body)) return;
  Connection& c = *conns_[index];
  if (c.stream.Seals()) {
    c.stream.WriteOwned(std::move(header));
    c.stream.WriteOwned(std::move(body));
    c.sck->RequestFlush();
  } else {
    c.sck->SendOwned(std::move(header), std::move(body));
  }
  LimitBacklog(index);
}

void Connections::Send(int32_t index, std::span<const std::string_view> pieces) {
  Connection& c = *conns_[index];
  if (c.stream.Seals()) {
    // Sealed at the flush, with everything else written before the handler returns:
    // one record per 16 KiB of the batch, never one per message.
    for (std::string_view piece : pieces) c.stream.Write(piece);
    c.sck->RequestFlush();
  } else {
    c.sck->Send(pieces);
  }
  LimitBacklog(index);
}

void Connections::Seal(int32_t index, uint64_t generation) {
  Connection& c = *conns_[index];
  if (c.generation != generation || !c.stream.Seals()) return;
  if (std::string out = c.stream.TakeOutput(); !out.empty()) c.sck->SendOwned(std::move(out));
}

bool Connections::Admit(int32_t index, std::string_view text, std::string_view more) {
  const std::string_view pieces[] = {text, more};
  return Admit(index, pieces);
}

bool Connections::Admit(int32_t index, std::span<const std::string_view> pieces) {
  if (!IsConnected(index)) return false;
  Connection& c = *conns_[index];
  if (c.backlogFull) return false;
  size_t size = 0;
  for (std::string_view piece : pieces) size += piece.size();
  if (TheDebugLog().Enabled()) {
    DebugLine("<< OUTGOING <<<<<<<<<<");
    std::string text;
    for (std::string_view piece : pieces) text.append(piece);
    DebugLine(text);
  }
  // A piece that would pass the budget first closes whoever holds the most,
  // this connection perhaps.
  CheckBudget(index, size);
  return !c.backlogFull;
}

void Connections::LimitBacklog(int32_t index) {
  Connection& c = *conns_[index];
  // A peer that stops reading must not make this process hold everything
  // the network sends its way. Room for two whole messages of the largest
  // size plus a header keeps every legitimate burst.
  const size_t limit = 2 * static_cast<size_t>(std::max<int64_t>(c.limits.maxMessage, 0)) + 65536;
  if (Waiting(c) > limit) {
    c.backlogFull = true;
    CloseLater(index, "Connection to " + PeerOf(c) + " closed: more than " + std::to_string(limit) +
                          " bytes waiting to be sent");
  }
}

void Connections::WriteToAllExcept(const LinkOwner& owner, int32_t except, std::string_view text) {
  // Writing never gives an element to another owner (closes are deferred).
  for (int32_t i : owner.Links) {
    if (i != except) Write(i, text);
  }
}

void Connections::WriteToAllExcept(const LinkOwner& owner, int32_t except,
                                   std::span<const std::string_view> pieces) {
  for (int32_t i : owner.Links) {
    if (i != except && Admit(i, pieces)) Send(i, pieces);
  }
}

bool Connections::CloseListeners(const LinkOwner& owner) {
  bool any = false;
  for (auto& entry : listeners_) {
    if (entry.sck->State() != SocketState::Closed && entry.Owner.lock().get() == &owner) {
      entry.sck->Close();
      any = true;
    }
  }
  return any;
}

void Connections::CloseOwnedBy(const LinkOwner& owner) {
  // A handler told of a close may dial, taking an element of this list.
  const std::vector<int32_t> links = owner.Links;
  for (int32_t i : links) {
    if (Lock(conns_[i]->Owner).get() == &owner) CloseConnection(i, true);
  }
}

bool Connections::CloseAddress(const LinkOwner& owner, const std::string& address,
                               const std::string& nodeID) {
  bool closed = false;
  const std::vector<int32_t> links = owner.Links;
  for (int32_t i : links) {
    if (Lock(conns_[i]->Owner).get() != &owner) continue;
    Connection& c = *conns_[i];
    const bool match =
        (!address.empty() && c.Address == address) || (!nodeID.empty() && c.NodeID == nodeID);
    if (!match) continue;
    // A maintained link waiting to be re-dialled stops being maintained, but
    // only closing an open one counts.
    c.Maintain = false;
    if (c.sck->State() == SocketState::Closed) continue;
    closed = true;
    CloseConnection(i, true);
  }
  return closed;
}

}  // namespace qel
