#include "net/link_table.h"

#include <malloc.h>

#include <cerrno>

#include <algorithm>
#include <utility>

#include <asio/error.hpp>

#include <qel/error.h>
#include <qel/event_loop.h>

#include "core/debug_log.h"
#include "core/fault.h"
#include "core/log.h"
#include "core/stats.h"
#include "net/dial_address.h"
#include "net/memory_budget.h"

namespace qel {
namespace {

constexpr int32_t kUpkeepIntervalMs = 5000;
constexpr size_t kTrimAfterBytes = 1 << 20;

std::shared_ptr<LinkOwner> Lock(const std::weak_ptr<LinkOwner>& owner) {
  auto node = owner.lock();
  return node && node->Alive() ? node : nullptr;
}

// Counted for the node that owns the link, or for the process alone once it is gone.
void CountRefusal(const std::weak_ptr<LinkOwner>& owner, Refusal reason) {
  if (auto node = owner.lock()) {
    node->Counters.Refused(reason);
  } else {
    TheStats().Refused(reason);
  }
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

// Logs about link's owner; format runs only when level is on.
template <class Format>
void LogLink(LogLevel level, const Link& c, Format&& format) {
  if (!LogOn(level)) return;
  const auto owner = c.Owner.lock();
  WriteLog(level, owner ? owner->LogName() : std::string_view(), format());
}

// The mark a log line about a refusal ends with.
std::string RefusedMark(std::string_view refused) {
  return refused.empty() ? std::string() : " [refused: " + std::string(refused) + "]";
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

LinkTable& LinkTable::Get() {
  static LinkTable* table = new LinkTable;  // sockets outlive static destruction
  return *table;
}

LinkTable::LinkTable()
    : links_(1), upkeep_([this] { UpkeepTick(); }), sweep_([this] { SweepStalled(); }) {
  upkeep_.SetInterval(kUpkeepIntervalMs);
  upkeep_.Enable(true);
  sweep_.SetInterval(kSweepIntervalMs);
  sweep_.Enable(true);
}

const std::string& LinkTable::PeerKey(int32_t index) const {
  static const std::string none;
  return IsUp(index) ? links_[index]->stream.PeerKey() : none;
}

int32_t LinkTable::HandshakeMs(const LinkLimits& limits) {
  // The dial's own timeout is often a few hundred ms, too short for a handshake on a busy
  // host; a peer that holds a half-open link longer than this is dropped.
  return std::max(limits.connectTimeoutMs, 5000);
}

int32_t LinkTable::GetFreeLink(LinkOwner& owner, const LinkLimits& limits) {
  int32_t index = 0;
  for (int32_t i = 1; i < static_cast<int32_t>(links_.size()); ++i) {
    Link& c = *links_[i];
    if (c.sck->State() == SocketState::Closed && !c.Maintain && c.draining == 0) {
      index = i;
      break;
    }
  }
  if (index == 0) {
    links_.push_back(std::make_unique<Link>());
    index = Count();
  }
  Retire(index);
  SetOwner(index, owner);
  links_[index]->Reset(limits);
  Attach(index);
  return index;
}

void LinkTable::Retire(int32_t index) {
  Link& c = *links_[index];
  if (auto owner = c.Owner.lock()) owner->Counters.RetiredLinks += c.traffic;
  c.traffic = {};
}

void LinkTable::SetOwner(int32_t index, LinkOwner& owner) {
  Link& c = *links_[index];
  if (auto previous = Lock(c.Owner)) std::erase(previous->Links, index);
  c.Owner = owner.weak_from_this();
  auto at = std::lower_bound(owner.Links.begin(), owner.Links.end(), index);
  owner.Links.insert(at, index);
}

void LinkTable::Attach(int32_t index) {
  Link& c = *links_[index];
  const uint64_t generation = c.generation;
  c.sck->SetHandlers({
      .onConnected = [this, index] { OnConnected(index); },
      .onData = [this, index,
                 generation](std::string_view data) { OnData(index, generation, data); },
      .onPeerClosed = [this, index](const std::error_code& ec) { OnPeerClosed(index, ec); },
      .onError =
          [this, index](const std::error_code& ec) {
            // A failed re-dial parks the element for the next upkeep tick; a
            // waiting ConnectTo sees the state itself.
            Link& failed = *links_[index];
            failed.dialError = ec;
            if (failed.redial) failed.sck->Close();
          },
      .onSent =
          [this, index](size_t n) {
            TheStats().OutBytesAcc += static_cast<int64_t>(n);
            links_[index]->traffic.BytesOut += static_cast<int64_t>(n);
            links_[index]->WakeDrainWaiters(false);
          },
      // A large body is read where it is going, not copied there.
      .onReadRoom =
          [this, index, generation] {
            Link& c = *links_[index];
            if (c.generation != generation || !Lock(c.Owner)) return std::span<char>();
            return c.ReadRoom();
          },
      .onDirect =
          [this, index, generation](size_t n) {
            if (links_[index]->generation != generation) return;
            links_[index]->FeedDirect(n);
            AfterFeed(index, generation);
          },
      .onFlush =
          [this, index, generation] {
            if (links_[index]->generation == generation) links_[index]->Seal();
          },
      // Closed from the loop: the write that found the file cut may be inside a handler.
      .onFileEnded =
          [this, index, generation] {
            Post([this, index, generation] {
              CloseWithFault(
                  index, generation,
                  "Connection to " + links_[index]->Name() +
                      " closed: a file being sent on it was cut short or could not be read");
            });
          },
  });
}

void LinkTable::OnConnected(int32_t index) {
  Link& c = *links_[index];
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

bool LinkTable::LinkUp(int32_t index, uint64_t generation) {
  Link& c = *links_[index];
  auto owner = Lock(c.Owner);
  if (!owner) return false;
  c.up = true;
  c.upTick = TickCount();
  const LinkKind kind = c.accepted ? LinkKind::Accepted
                        : c.redial ? LinkKind::Redialled
                                   : LinkKind::Dialled;
  c.redial = false;
  LogLink(LogLevel::Debug, c, [&] {
    return (c.accepted
                ? "Connection from " + c.Name() + " accepted"
                : "Connected to " + c.Name() + (kind == LinkKind::Redialled ? " again" : "")) +
           (c.stream.Secure() ? " (TLS)" : "");
  });
  owner->OnLinkUp({index, c.generation}, kind, c.accepted ? c.sck->RemoteHost() : c.Address);
  return c.generation == generation && IsUp(index);
}

void LinkTable::OnData(int32_t index, uint64_t generation, std::string_view data) {
  Link& c = *links_[index];
  auto owner = Lock(c.Owner);
  if (!owner) return;
  TheStats().InBytesAcc += static_cast<int64_t>(data.size());
  c.traffic.BytesIn += static_cast<int64_t>(data.size());
  c.lastByteTick = TickCount();
  if (c.backlogFull) return;  // closing: what it sends no longer matters
  if (c.stream.Transforms()) return OnTransformed(index, generation, data);
  FeedPlain(index, generation, data);
}

void LinkTable::OnTransformed(int32_t index, uint64_t generation, std::string_view data) {
  Link& c = *links_[index];
  // Messages decrypted by this read are handled where they lie until it returns.
  Link::SecureRead read(c);
  const Link::Transformed fed = c.FeedTransformed(data);
  // Handshake answers and alerts leave with the next flush, as sealed data does; a read
  // that only brought data asks for none.
  if (c.stream.HasOutput()) c.sck->RequestFlush();
  if (fed.outcome != MessageFeeder::Outcome::Ok) {
    return CloseWithFault(index, generation, c.TooLong(fed.outcome));
  }
  switch (fed.step) {
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
      // What the sink did not take (it stops only on a fault) is fed as usual.
      if (const std::string plain = c.stream.TakePlain(); !plain.empty()) {
        return FeedPlain(index, generation, plain);
      }
      if (fed.fed) AfterFeed(index, generation);
      return;
    }
    case LinkTransform::Step::Failed:
      break;
  }
  if (!c.up) return EndBeforeUp(index, c.stream.Why(), true);
  // A peer may send its last messages and end the session at once: they are still its.
  if (const std::string plain = c.stream.TakePlain(); !plain.empty()) {
    FeedPlain(index, generation, plain);
  } else if (fed.fed) {
    AfterFeed(index, generation);
  }
  if (c.generation != generation || !IsUp(index)) return;
  if (std::string alert = c.stream.TakeOutput(); !alert.empty()) c.sck->SendOwned(std::move(alert));
  CloseRefused(index, "Connection to " + c.Name() + " closed: " + c.stream.Why());
}

void LinkTable::FeedPlain(int32_t index, uint64_t generation, std::string_view data) {
  Link& c = *links_[index];
  if (auto outcome = c.Feed(data); outcome != MessageFeeder::Outcome::Ok) {
    CloseWithFault(index, generation, c.TooLong(outcome));
  } else {
    AfterFeed(index, generation);
  }
  // Messages handled here were read where they lay in data; what must wait for a later
  // round is copied out before data goes.
  c.Settle();
}

void LinkTable::AfterFeed(int32_t index, uint64_t generation) {
  Link& c = *links_[index];
  c.PaceReading();
  CheckBudget(index);
  if (c.generation != generation) return;
  Drain(index, generation);
}

void LinkTable::Drain(int32_t index, uint64_t generation) {
  Link& c = *links_[index];
  auto owner = Lock(c.Owner);
  if (!owner) return;
  if (c.draining >= kMaxDepthPerLink || depth_ >= kMaxDepth) {
    // An outer round of this link takes them when its handler returns; a
    // link with no round running is drained once the nesting unwinds.
    if (c.draining == 0 && !c.drainPending) {
      c.drainPending = true;
      pendingDrains_.push_back(index);
    }
    return;
  }
  {
    DepthGuard guard(c.draining, depth_);
    while (c.HasMessage() && c.generation == generation &&
           c.sck->State() == SocketState::Connected && owner->Alive()) {
      DebugLine("** PROCESS ");
      try {
        if (c.NextKept()) {
          typMessage message = c.TakeMessage();
          LogLink(LogLevel::Trace, c, [&] { return "From " + c.Name() + ": " + message.MsgType; });
          owner->OnLinkMessage({index, generation}, std::move(message));
        } else {
          const PackedMessage message = c.TakeInPlace();
          LogLink(LogLevel::Trace, c,
                  [&] { return "From " + c.Name() + ": " + std::string(message.type); });
          owner->OnLinkMessage({index, generation}, message);
        }
      } catch (...) {
        // Nothing a peer sends may unwind the loop: this link goes, the
        // node and its other links stay.
        std::string text = "Connection to " + c.Name() + " closed: " + DescribeCurrentFault();
        CloseWithFault(index, generation, text);
        break;
      }
    }
  }
  // What is left belongs to a link that was closed or taken again.
  if (c.generation == generation && c.sck->State() != SocketState::Connected && c.draining == 0) {
    c.ReleaseBuffers();
  }
  if (depth_ < kMaxDepth) DrainPending();
}

void LinkTable::DrainPending() {
  // Only the links that wait: every read ends here, and a table of
  // thousands of links must not be walked each time.
  std::vector<int32_t> waiting;
  waiting.swap(pendingDrains_);
  for (int32_t i : waiting) {
    Link& c = *links_[i];
    if (!c.drainPending) continue;  // released meanwhile
    c.drainPending = false;
    // From the loop, not from here: the caller is itself a handler.
    Post([this, i, generation = c.generation] {
      if (links_[i]->generation == generation) Drain(i, generation);
    });
  }
}
int32_t LinkTable::ListenOnPort(LinkOwner& owner, int32_t port, const std::string& address,
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
                 const std::string text = "Accepting on port " +
                                          std::to_string(entry.sck->LocalPort()) +
                                          " paused: " + ec.message();
                 Log(LogLevel::Warn, owner->LogName(), [&] { return text; });
                 owner->OnLinkFault(text);
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
      const std::string text = "Cannot listen on address '" + address + "': " + ec.message();
      Log(LogLevel::Error, owner.LogName(), [&] { return text; });
      owner.OnLinkFault(text);
    }
    return 0;
  }
  return entry.sck->LocalPort();
}

int32_t LinkTable::OpenCount(const LinkOwner& owner) const {
  int32_t open = 0;
  for (int32_t i : owner.Links) {
    if (links_[i]->sck->State() != SocketState::Closed) ++open;
  }
  return open;
}

void LinkTable::OnAccept(size_t listener, std::unique_ptr<Socket> socket) {
  auto& entry = listeners_[listener];
  auto owner = Lock(entry.Owner);
  if (!owner) return;
  std::string source = socket->RemoteHost();
  if (OpenCount(*owner) >= entry.limits.maxConnections) {
    owner->Counters.Refused(Refusal::Connections);
    auto text = [&] {
      return "Connection from " + source +
             " refused: " + std::to_string(entry.limits.maxConnections) +
             " connections are open (maxConnections)";
    };
    // Refused before the host is asked; said once until one is accepted again (the log says
    // the rest at debug: a flood of dials must not flood it).
    Log(entry.refusing ? LogLevel::Debug : LogLevel::Info, owner->LogName(),
        [&] { return text() + RefusedMark(RefusalName(Refusal::Connections)); });
    if (!entry.refusing) {
      entry.refusing = true;
      owner->OnLinkFault(text());
    }
    return;
  }
  entry.refusing = false;
  if (owner->OnLinkRequest(source)) {  // refused: the socket closes here
    Log(LogLevel::Debug, owner->LogName(),
        [&] { return "Connection from " + source + " refused by the host"; });
    return;
  }
  if (!owner->Alive() || socket->State() != SocketState::Connected) return;
  const std::string peer = socket->RemoteHost() + ":" + std::to_string(socket->RemotePort());
  socket->SetKeepAlive(entry.limits.keepAliveSec);
  Adopt(*owner, std::move(socket), true, entry.limits, peer);
}

LinkId LinkTable::Adopt(LinkOwner& owner, std::unique_ptr<Socket> socket, bool accepted,
                        const LinkLimits& limits, const std::string& peer) {
  const int32_t index = GetFreeLink(owner, limits);
  Link& c = *links_[index];
  c.sck = std::move(socket);
  c.Peer = peer;
  c.lastByteTick = c.upTick = TickCount();
  c.accepted = accepted;
  Attach(index);
  const LinkId link = Id(index);
  if (!accepted) {
    OnConnected(index);
    return link;
  }
  // In a secure mode the peer's first byte says what the link is, and nothing is sent
  // before it: a plaintext peer of a node that requires TLS must get nothing readable.
  c.stream = LinkTransform::Accepted(limits.security);
  if (c.stream.Ready()) LinkUp(index, c.generation);
  return link;
}

bool LinkTable::StartDial(int32_t index, bool redial) {
  Link& c = *links_[index];
  const DialTarget target = ParseDialAddress(c.Address, c.limits.defaultPort);
  if (target.fault.fault != DialFault::None) {
    if (auto owner = Lock(c.Owner)) {
      const std::string text = "Connect to " + c.Address + " failed: " + target.fault.why;
      Log(LogLevel::Warn, owner->LogName(), [&] { return text; });
      owner->OnLinkFault(text);
    }
    c.Maintain = false;
    return false;
  }
  c.ReleaseBuffers();
  c.redial = redial;
  c.dialError.clear();
  c.stream = LinkTransform();
  c.up = false;
  c.holdRedial = false;
  c.Peer = target.host + ":" + std::to_string(target.port);
  c.sck->Connect(target.host, target.port, c.limits.connectTimeoutMs);
  return true;
}

DialResult LinkTable::ConnectTo(LinkOwner& owner, const std::string& address, bool maintain,
                                const LinkLimits& limits) {
  const DialTarget target = ParseDialAddress(address, limits.defaultPort);
  if (target.fault.fault != DialFault::None) return target.fault;
  const int32_t index = GetFreeLink(owner, limits);
  Link& c = *links_[index];
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

void LinkTable::Redial(int32_t index) {
  Link& c = *links_[index];
  auto owner = Lock(c.Owner);
  if (!owner) return;
  // The link that comes back is a new one, perhaps to another node at that address: ids
  // kept from the old one (a served transfer, a pending confirmation) must find it gone.
  Retire(index);
  ++c.generation;
  Attach(index);
  StartDial(index, true);
}

void LinkTable::CloseLink(int32_t index, bool stopMaintaining, std::string_view logLine,
                          std::string_view refused) {
  Link& c = *links_[index];
  if (c.sck->State() == SocketState::Closed) return;
  if (stopMaintaining) c.Maintain = false;
  if (!c.up) {  // the owner never heard of it
    if (!logLine.empty()) {
      LogLink(LogLevel::Info, c, [&] { return std::string(logLine) + RefusedMark(refused); });
    }
    return EndBeforeUp(index, {}, false);
  }
  const size_t held = c.Held();
  // An accepted link whose peer never said where it listens is named by its IP.
  const std::string address = c.Name();
  // What was written before the close leaves with it, sealed, as it would in plaintext.
  if (c.stream.Secure()) c.Seal();
  c.sck->Close();
  c.up = false;
  c.stream = LinkTransform();
  c.WakeDrainWaiters(true);
  if (c.draining == 0) c.ReleaseBuffers();
  // The allocator keeps large freed blocks for reuse; after a connection
  // that held a lot, hand them back so the process shrinks again.
  if (held >= kTrimAfterBytes) malloc_trim(0);
  // The element may come back to another node at the same address: what
  // it knew of this peer goes now, so neither routing nor a later close
  // names the old one.
  const std::string nodeID = std::exchange(c.NodeID, {});
  LogLink(LogLevel::Info, c, [&] {
    std::string line = logLine.empty() ? "Connection to " + address + " closed by this node"
                                       : std::string(logLine);
    line += RefusedMark(refused);
    if (!nodeID.empty()) line += " [NodeID: " + nodeID + "]";
    return line;
  });
  auto owner = Lock(c.Owner);
  if (!owner) return;
  owner->OnLinkDown({index, c.generation}, address, nodeID);
  if (c.Maintain && !c.holdRedial && owner->Alive() && c.sck->State() == SocketState::Closed) {
    Redial(index);
  }
}

void LinkTable::CloseRefused(int32_t index, const std::string& text, std::string_view refused) {
  links_[index]->holdRedial = true;
  CloseWithFault(index, links_[index]->generation, text, refused);
}

void LinkTable::OnPeerClosed(int32_t index, const std::error_code& ec) {
  Link& c = *links_[index];
  if (c.up) {
    return CloseLink(index, false,
                     ec == asio::error::eof
                         ? "Connection to " + c.Name() + " closed by the peer"
                         : "Connection to " + c.Name() + " broke: " + ec.message());
  }
  // An accepted link that closes before it said anything is not worth an Error.
  EndBeforeUp(index, c.accepted ? "" : "the peer closed the link during the TLS handshake", true);
}

void LinkTable::EndBeforeUp(int32_t index, std::string why, bool fallBack) {
  Link& c = *links_[index];
  if (c.sck->State() == SocketState::Closed) return;
  if (fallBack && c.stream.MayFallBack()) {
    DebugLine("Connection to " + c.Name() + ": no TLS there, dialled again in plaintext");
    LogLink(LogLevel::Debug, c, [&] {
      return "Connection to " + c.Name() + ": no TLS there, dialled again in plaintext";
    });
    c.plainOnly = true;
    c.sck->Close();
    StartDial(index, c.redial);
    return;
  }
  const std::string peer = c.Name();
  // An alert tells the peer why; a maintained link is dialled again by the upkeep tick.
  if (std::string alert = c.stream.TakeOutput(); !alert.empty()) c.sck->SendOwned(std::move(alert));
  c.sck->Close();
  c.stream = LinkTransform();
  c.WakeDrainWaiters(true);
  if (c.draining == 0) c.ReleaseBuffers();
  if (why.empty()) return;
  LogLink(LogLevel::Info, c, [&] { return "Connection to " + peer + " closed: " + why; });
  if (c.dialWaiting) {
    c.dialFault = why;
  } else if (auto owner = Lock(c.Owner)) {
    owner->OnLinkFault("Connection to " + peer + " closed: " + why);
  }
}

void LinkTable::CloseWithFault(int32_t index, uint64_t generation, const std::string& text,
                               std::string_view refused) {
  Link& c = *links_[index];
  if (c.generation != generation) return;
  if (auto owner = Lock(c.Owner)) {
    owner->OnLinkFault(text);
    // The handler may have shut the node down or closed the link itself.
    if (c.generation != generation) return;
  }
  CloseLink(index, false, text, refused);
}

void LinkTable::CloseLater(int32_t index, std::string text, std::string_view refused) {
  // Closed from the loop: the writer may be in the middle of a flood or a
  // handler, and closing raises events.
  Post([this, index, generation = links_[index]->generation, text = std::move(text), refused] {
    Link& c = *links_[index];
    if (c.generation != generation || !c.backlogFull) return;
    if (c.sck->State() != SocketState::Connected) return;
    CloseWithFault(index, generation, text, refused);
  });
}

void LinkTable::UpkeepTick() {
  for (int32_t i = 1; i < static_cast<int32_t>(links_.size()); ++i) {
    Link& c = *links_[i];
    if (c.sck->State() == SocketState::Closed && c.Maintain) Redial(i);
  }
}

void LinkTable::SweepStalled() {
  const int64_t now = TickCount();
  for (int32_t i = 1; i < static_cast<int32_t>(links_.size()); ++i) {
    Link& c = *links_[i];
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
    if (!c.InMessage()) continue;
    if (now - c.lastByteTick < c.limits.stallTimeoutMs) continue;
    // A sender that stops in the middle of a message holds a descriptor and
    // a buffer for nothing: the slowloris pattern.
    CountRefusal(c.Owner, Refusal::Stall);
    CloseWithFault(i, c.generation,
                   "Connection to " + c.Name() + " closed: nothing received for " +
                       std::to_string(c.limits.stallTimeoutMs) + " ms in the middle of a message",
                   RefusalName(Refusal::Stall));
  }
}

void LinkTable::CheckBudget(int32_t index, size_t incoming) {
  const Link& c = *links_[index];
  const MemoryBudget budget(c.limits.memoryBudget, c.limits.maxConnections);
  if (budget.WithinShare(c.Held() + incoming)) return;
  std::vector<MemoryBudget::Holding> links;
  links.reserve(links_.size());
  for (int32_t i = 1; i < static_cast<int32_t>(links_.size()); ++i) {
    const Link& other = *links_[i];
    // Links already on their way out no longer count.
    links.push_back({.link = i,
                     .bytes = other.Held(),
                     .counted = other.sck->State() != SocketState::Closed && !other.backlogFull});
  }
  for (const MemoryBudget::Close& close : budget.ToClose(links, index, incoming)) {
    Link& victim = *links_[close.link];
    victim.backlogFull = true;
    CountRefusal(victim.Owner, Refusal::Memory);
    // It closes on the next turn of the loop; what it holds goes now, or a
    // burst of writes would pile up behind every victim of this turn.
    victim.Discard();
    CloseLater(close.link,
               "Connection to " + victim.Name() + " closed: it held " + std::to_string(close.held) +
                   " of the " + std::to_string(close.total) +
                   " bytes the node keeps for its connections, more than memoryBudget (" +
                   std::to_string(budget.Limit()) + ")",
               RefusalName(Refusal::Memory));
  }
}

bool LinkTable::HasOpenLink(const LinkOwner& owner) const {
  return std::any_of(owner.Links.begin(), owner.Links.end(), [this](int32_t i) { return IsUp(i); });
}

std::vector<typLinkInfo> LinkTable::OpenLinks(const LinkOwner& owner) const {
  std::vector<typLinkInfo> links;
  for (int32_t i : owner.Links) {
    if (IsUp(i)) links.push_back(LinkInfo(i));
  }
  return links;
}

void LinkTable::Describe(const LinkOwner& owner, NodeSnapshot& into) const {
  LinkTraffic total = owner.Counters.RetiredLinks;
  int64_t held = 0;
  const int64_t now = TickCount();
  into.links.reserve(into.links.size() + owner.Links.size());
  for (int32_t i : owner.Links) {
    const Link& c = *links_[i];
    // Closed ones still hold what they carried until the element is taken again.
    total += c.traffic;
    if (c.sck->State() == SocketState::Closed) continue;
    held += static_cast<int64_t>(c.Held());
    into.links.push_back({.address = c.Name(),
                          .nodeID = c.NodeID,
                          .peerKey = c.IsUp() ? c.stream.PeerKey() : std::string(),
                          .accepted = c.accepted,
                          .secure = c.stream.Secure(),
                          .up = c.IsUp(),
                          .bytesIn = c.traffic.BytesIn,
                          .bytesOut = c.traffic.BytesOut,
                          .messagesIn = c.traffic.MessagesIn,
                          .messagesOut = c.traffic.MessagesOut,
                          .bytesQueued = static_cast<int64_t>(c.Waiting()),
                          .ageSeconds = (now - c.upTick) / 1000});
  }
  into.messagesReceived = total.MessagesIn;
  into.messagesSent = total.MessagesOut;
  into.bytesReceived = total.BytesIn;
  into.bytesSent = total.BytesOut;
  into.memoryHeld = held;
}

std::vector<LinkId> LinkTable::UpLinks(const LinkOwner& owner) const {
  std::vector<LinkId> links;
  for (int32_t i : owner.Links) {
    if (IsUp(i)) links.push_back(Id(i));
  }
  return links;
}

std::string LinkTable::SetPeerNode(int32_t index, const std::string& nodeID,
                                   std::string_view port) {
  Link& c = *links_[index];
  c.NodeID = nodeID;
  if (!port.empty()) {
    std::string ip = c.sck->RemoteHost();
    if (ip.empty()) ip = c.Peer.substr(0, c.Peer.rfind(':'));  // the link broke meanwhile
    c.Address = ip + ":" + std::string(port);
    c.Peer = c.Address;
  }
  return c.Address;
}

typLinkInfo LinkTable::LinkInfo(int32_t index) const {
  typLinkInfo link;
  if (!IsUp(index)) return link;
  const Link& c = *links_[index];
  link.Index = index;
  link.Address = c.Name();
  link.nodeID = c.NodeID;
  link.isAccepted = c.accepted;
  link.isSecure = c.stream.Secure();
  link.PeerKey = c.stream.PeerKey();
  link.lngAge = (TickCount() - c.upTick) / 1000;
  return link;
}

int32_t LinkTable::LinkOfNode(const LinkOwner& owner, std::string_view nodeID) const {
  if (nodeID == "BROADCAST") return 0;
  for (int32_t i : owner.Links) {
    if (links_[i]->NodeID == nodeID) return i;
  }
  return 0;
}

size_t LinkTable::QueuedBytes(int32_t index) const {
  return IsUp(index) ? links_[index]->Waiting() : 0;
}

int32_t LinkTable::Fullest(const LinkOwner& owner) const {
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

void LinkTable::Write(int32_t index, std::string_view text) {
  const std::span<const std::string_view> pieces(&text, 1);
  if (!Admit(index, pieces)) return;
  links_[index]->Send(pieces);
  LimitBacklog(index);
}

void LinkTable::WriteOwned(int32_t index, std::string&& text) {
  const std::string_view pieces[] = {text};
  if (!Admit(index, pieces)) return;
  links_[index]->SendOwned(std::move(text));
  LimitBacklog(index);
}

void LinkTable::WriteOwned(int32_t index, std::string&& header, std::string&& body) {
  const std::string_view pieces[] = {header, body};
  if (!Admit(index, pieces)) return;
  links_[index]->SendOwned(std::move(header), std::move(body));
  LimitBacklog(index);
}

bool LinkTable::CarriesFiles(int32_t index) const {
  return IsUp(index) && !links_[index]->stream.Seals();
}

void LinkTable::WriteFile(int32_t index, std::string&& header, FileSpan body) {
  // The body holds no memory here: only the header is weighed against the budget.
  const std::string_view pieces[] = {header};
  if (!CarriesFiles(index) || !Admit(index, pieces)) return;
  links_[index]->sck->SendFile(std::move(header), std::move(body));
  LimitBacklog(index);
}

bool LinkTable::Admit(int32_t index, std::span<const std::string_view> pieces) {
  if (!IsUp(index)) return false;
  Link& c = *links_[index];
  if (c.backlogFull) return false;
  size_t size = 0;
  for (std::string_view piece : pieces) size += piece.size();
  LogLink(LogLevel::Trace, c,
          [&] { return "To " + c.Name() + ": " + std::to_string(size) + " bytes"; });
  if (TheDebugLog().Enabled()) {
    DebugLine("<< OUTGOING <<<<<<<<<<");
    std::string text;
    for (std::string_view piece : pieces) text.append(piece);
    DebugLine(text);
  }
  // A piece that would pass the budget first closes whoever holds the most,
  // this link perhaps.
  CheckBudget(index, size);
  c.traffic.MessagesOut += c.backlogFull ? 0 : 1;
  return !c.backlogFull;
}

void LinkTable::LimitBacklog(int32_t index) {
  Link& c = *links_[index];
  if (const size_t limit = c.OverBacklog()) {
    CloseLater(index, "Connection to " + c.Name() + " closed: more than " + std::to_string(limit) +
                          " bytes waiting to be sent");
  }
}

void LinkTable::WriteToAllExcept(const LinkOwner& owner, int32_t except,
                                 std::span<const std::string_view> pieces) {
  for (int32_t i : owner.Links) {
    if (i != except && Admit(i, pieces)) {
      links_[i]->Send(pieces);
      LimitBacklog(i);
    }
  }
}

bool LinkTable::CloseListeners(const LinkOwner& owner) {
  bool any = false;
  for (auto& entry : listeners_) {
    if (entry.sck->State() != SocketState::Closed && entry.Owner.lock().get() == &owner) {
      entry.sck->Close();
      any = true;
    }
  }
  return any;
}

void LinkTable::CloseOwnedBy(const LinkOwner& owner) {
  // A handler told of a close may dial, taking an element of this list.
  const std::vector<int32_t> links = owner.Links;
  for (int32_t i : links) {
    if (Lock(links_[i]->Owner).get() == &owner) CloseLink(i, true);
  }
}

bool LinkTable::CloseAddress(const LinkOwner& owner, const std::string& address,
                             const std::string& nodeID) {
  bool closed = false;
  const std::vector<int32_t> links = owner.Links;
  for (int32_t i : links) {
    if (Lock(links_[i]->Owner).get() != &owner) continue;
    Link& c = *links_[i];
    const bool match =
        (!address.empty() && c.Address == address) || (!nodeID.empty() && c.NodeID == nodeID);
    if (!match) continue;
    // A maintained link waiting to be re-dialled stops being maintained, but
    // only closing an open one counts.
    c.Maintain = false;
    if (c.sck->State() == SocketState::Closed) continue;
    closed = true;
    CloseLink(i, true);
  }
  return closed;
}

}  // namespace qel
