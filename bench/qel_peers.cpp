#include "qel_peers.h"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <qel/qel.h>
#ifdef QEL_HAVE_ADMIN
#include <qel/admin.h>
#endif

namespace qelbench {
namespace {

// Messages queued between two turns of the loop; each turn gathers what was
// queued into one write.
constexpr int kBatch = 100;
// A run that has not finished by then is reported as failed.
constexpr int64_t kRunLimitNs = 60'000'000'000;

std::string Address(int64_t port) {
  return std::string(kLoopback) + ":" + std::to_string(port);
}

// Reports a node's first faults on stderr; every fault of a long run would
// drown the figures.
void WatchErrors(qel::cQEL& node, const char* role) {
  node.Error = [role, shown = 0](std::string& message, std::string&) mutable {
    if (++shown <= 3) std::fprintf(stderr, "qel %s: %s\n", role, message.c_str());
  };
}

// Keeps the node's loop turning until the parent writes a command; nullopt
// once the parent is gone.
std::optional<std::string> PumpUntilCommand(Channel& channel) {
  for (;;) {
    if (channel.Pending(0)) {
      std::optional<std::string> line = channel.Receive(1000);
      if (!line && channel.Pending(0)) return std::nullopt;
      if (line) return line;
    }
    // Returns as soon as an event ran, so queued writes still drain at once;
    // only the parent's next command waits up to 10 ms.
    qel::DoEvents(10);
  }
}

std::string ReadyLine(qel::cQEL& node) {
  return "ready port=" + std::to_string(node.ListenPort()) + " id=" + node.NodeID();
}

void Receiver(Channel& channel, const std::string& settings, bool http) {
  UseLoopback();
  qel::cQEL node;
  WatchErrors(node, "receiver");
  int64_t count = 0;
  int64_t target = -1;
  int64_t doneAt = 0;
  int64_t wrong = 0;  // bodies that did not survive the trip
  node.MessageReceived = [&](std::string& text, std::string&, std::string&) {
    if (text != Payload()) ++wrong;
    if (++count == target) doneAt = NowNs();
  };
  node.Initialise("receiver", 0, qel::role_Peer, "", "", settings);
  if (!node.Listen(0)) return channel.Send("fail cannot listen");
#ifdef QEL_HAVE_ADMIN
  // Served and idle: what an operator's admin port costs the node's messages.
  std::optional<qel::AdminServer> admin;
  if (http) admin.emplace(node, qel::AdminOptions{}).Start();
#else
  if (http) return channel.Send("fail built without the admin server");
#endif
  channel.Send(ReadyLine(node));
  while (std::optional<std::string> line = PumpUntilCommand(channel)) {
    if (!line->starts_with("arm ")) continue;
    target = std::atoll(line->c_str() + 4);
    count = 0;
    doneAt = 0;
    wrong = 0;
    channel.Send("armed");
    const int64_t deadline = NowNs() + kRunLimitNs;
    while (doneAt == 0 && NowNs() < deadline) qel::DoEvents(100);
    if (doneAt == 0) {
      channel.Send("fail received " + std::to_string(count) + " of " + std::to_string(target));
    } else {
      channel.Send("got n=" + std::to_string(target) + " t=" + std::to_string(doneAt) +
                   " wrong=" + std::to_string(wrong));
    }
  }
}

// Connects to connectTo, or listens for a relay when it is empty.
void Sender(Channel& channel, const std::string& settings, const std::string& connectTo,
            const std::string& receiverID) {
  UseLoopback();
  qel::cQEL node;
  WatchErrors(node, "sender");
  // Counted from the event, not isConnected: an accepted link does not set
  // it, and a secure link is up only once its handshake is done.
  bool linked = false;
  node.ConnectionEstab = [&](std::string&) { linked = true; };
  node.Initialise("sender", 0, qel::role_Peer, "", "", settings);
  if (connectTo.empty() ? !node.Listen(0) : !node.Connect(connectTo)) {
    return channel.Send("fail cannot listen or connect");
  }
  channel.Send(ReadyLine(node));
  const std::string& text = Payload();
  while (std::optional<std::string> line = PumpUntilCommand(channel)) {
    if (!line->starts_with("send ")) continue;
    const int64_t n = std::atoll(line->c_str() + 5);
    // A relay dials a listening sender on its own schedule.
    const int64_t deadline = NowNs() + 10'000'000'000;
    while (!linked && NowNs() < deadline) qel::DoEvents(10);
    if (!linked) {
      channel.Send("fail not connected");
      continue;
    }
    channel.Send("start t=" + std::to_string(NowNs()));
    for (int64_t i = 1; i <= n; ++i) {
      node.SendMessage(text, receiverID);
      if (i % kBatch == 0) qel::DoEvents(0);
    }
    qel::DoEvents(0);
  }
}

void Relay(Channel& channel, const std::string& settings, int64_t receiverPort,
           int64_t senderPort) {
  UseLoopback();
  qel::cQEL node;
  WatchErrors(node, "relay");
  node.Initialise("relay", 0, qel::role_Peer, "", "", settings);
  if (!node.Connect(Address(receiverPort)) || !node.Connect(Address(senderPort))) {
    return channel.Send("fail cannot connect both ends");
  }
  channel.Send("ready");
  for (;;) qel::DoEvents(1000);  // until the parent kills it
}

// Answers each "ping N BUDGET" command with the times of up to N round trips
// made within BUDGET ms; a round trip that fails counts as a failure.
void ServeRoundTrips(Channel& channel, const std::function<bool()>& roundTrip) {
  while (std::optional<std::string> line = PumpUntilCommand(channel)) {
    if (!line->starts_with("ping ")) continue;
    int64_t count = 0;
    int64_t budgetMs = 0;
    ParsePing(*line, count, budgetMs);
    std::vector<double> rtt;
    int failures = 0;
    const int64_t stop = NowNs() + budgetMs * 1'000'000;
    for (int64_t i = 0; i < count && NowNs() < stop; ++i) {
      const int64_t t0 = NowNs();
      const bool ok = roundTrip();
      const int64_t t1 = NowNs();
      if (ok) {
        rtt.push_back(static_cast<double>(t1 - t0));
      } else {
        ++failures;
      }
    }
    channel.Send(RttReport(rtt, failures));
  }
}

// How long the busy contender's loops poll before they block.
constexpr int32_t kBusyPollUs = 50;

void PingTarget(Channel& channel, int32_t busyPollUs) {
  UseLoopback();
  qel::SetBusyPoll(busyPollUs);
  qel::cQEL node;
  WatchErrors(node, "ping target");
  node.Initialise("target");
  if (!node.Listen(0)) return channel.Send("fail cannot listen");
  channel.Send(ReadyLine(node));
  for (;;) qel::DoEvents(1000);
}

void Pinger(Channel& channel, int64_t port, const std::string& targetID, int32_t busyPollUs) {
  UseLoopback();
  qel::SetBusyPoll(busyPollUs);
  qel::cQEL node;
  WatchErrors(node, "pinger");
  node.Initialise("pinger");
  if (!node.Connect(Address(port))) return channel.Send("fail cannot connect");
  // Ping only knows nodes in the cache: ask the target once.
  std::vector<qel::typNodeInfo> info = node.GetNodeInfo(targetID, false);
  if (info.empty() || info[0].ID != targetID) return channel.Send("fail target unknown");
  channel.Send("ready");
  // Timed around the call: the returned figure is in whole milliseconds.
  ServeRoundTrips(channel, [&] { return node.Ping(targetID, 3000) >= 0; });
}

// Answers every call to "echo" with its own parameters, from inside the
// handler.
void RpcCallee(Channel& channel) {
  UseLoopback();
  qel::cQEL node;
  WatchErrors(node, "rpc callee");
  node.Initialise("callee");
  std::shared_ptr<qel::cQELRPC> echo = node.bindRPC("echo", qel::RPC_INCOMING);
  echo->RemoteProcCall = [&node](std::string&, std::string& params, std::string& reqID,
                                 std::string&, bool&) { node.returnRemoteProc(reqID, params); };
  if (!node.Listen(0)) return channel.Send("fail cannot listen");
  channel.Send(ReadyLine(node));
  for (;;) qel::DoEvents(1000);
}

void RpcCaller(Channel& channel, int64_t port, const std::string& calleeID) {
  UseLoopback();
  qel::cQEL node;
  WatchErrors(node, "rpc caller");
  node.Initialise("caller");
  std::shared_ptr<qel::cQELRPC> answers = node.bindRPC("echo", qel::RPC_RETURN);
  std::string answered;      // the request answered last
  bool rightParams = false;  // whether it carried the parameters back
  answers->RemoteProcReturn = [&](std::string&, std::string& params, std::string& reqID,
                                  std::string&) {
    rightParams = params == Payload();
    answered = reqID;
  };
  if (!node.Connect(Address(port))) return channel.Send("fail cannot connect");
  channel.Send("ready");
  ServeRoundTrips(channel, [&] {
    const std::string reqID = node.callRemoteProc(calleeID, "echo", Payload());
    const int64_t deadline = NowNs() + 3'000'000'000;
    while (answered != reqID && NowNs() < deadline) qel::DoEvents(100);
    return answered == reqID && rightParams;
  });
}

}  // namespace

std::string QelSettings(bool compEnc, bool secure) {
  if (!compEnc && !secure) return {};
  qel::cSettings settings;
  if (compEnc) {
    settings.SaveSetting("useComp", true);
    settings.SaveSetting("useEnc", true);
  }
  if (secure) settings.SaveSetting("secureMode", "require");
  return settings.getXML();
}

namespace {

Rig ThroughputRig(bool relay, const std::string& settings, bool http = false) {
  Rig rig;
  Child& receiver = rig.Add(std::make_unique<Child>(
      "qel receiver", [settings, http](Channel& c) { Receiver(c, settings, http); }));
  std::optional<std::string> ready = receiver.Expect("ready", kReadyTimeoutMs, &rig.failure);
  if (!ready) return rig;
  const std::string receiverID = Field(*ready, "id");
  const int64_t receiverPort = FieldInt(*ready, "port");
  rig.receiver = &receiver;

  const std::string connectTo = relay ? std::string() : Address(receiverPort);
  Child& sender = rig.Add(std::make_unique<Child>(
      "qel sender", [=](Channel& c) { Sender(c, settings, connectTo, receiverID); }));
  ready = sender.Expect("ready", kReadyTimeoutMs, &rig.failure);
  if (!ready) return rig;
  rig.sender = &sender;
  if (!relay) return rig;

  const int64_t senderPort = FieldInt(*ready, "port");
  Child& middle = rig.Add(std::make_unique<Child>(
      "qel relay", [=](Channel& c) { Relay(c, settings, receiverPort, senderPort); }));
  if (!middle.Expect("ready", kReadyTimeoutMs, &rig.failure)) rig.sender = nullptr;
  return rig;
}

// Listens, and lets every link come and go.
void LinkTarget(Channel& channel, const std::string& settings) {
  UseLoopback();
  qel::cQEL node;
  WatchErrors(node, "link target");
  node.Initialise("target", 0, qel::role_Peer, "", "", settings);
  if (!node.Listen(0)) return channel.Send("fail cannot listen");
  channel.Send(ReadyLine(node));
  for (;;) qel::DoEvents(1000);
}

// Each round trip is a link brought up (both ends announced, the handshake
// done when secure) and closed again.
void LinkDialer(Channel& channel, const std::string& settings, int64_t port) {
  UseLoopback();
  qel::cQEL node;
  WatchErrors(node, "link dialer");
  bool up = false;
  bool down = false;
  node.ConnectionEstab = [&](std::string&) { up = true; };
  node.ConnectionClosed = [&](std::string&, std::string&) { down = true; };
  node.Initialise("dialer", 0, qel::role_Peer, "", "", settings);
  const std::string address = Address(port);
  channel.Send("ready");
  ServeRoundTrips(channel, [&] {
    up = down = false;
    if (!node.Connect(address)) return false;
    const int64_t deadline = NowNs() + 3'000'000'000;
    while (!up && NowNs() < deadline) qel::DoEvents(100);
    const bool ok = up;
    node.DisconnectFrom(address);
    while (!down && NowNs() < deadline) qel::DoEvents(100);
    return ok && down;
  });
}

}  // namespace

Rig QelThroughputRig(bool relay, bool compEnc) {
  return ThroughputRig(relay, QelSettings(compEnc, false));
}

Rig QelSecureThroughputRig(bool relay, bool compEnc) {
  return ThroughputRig(relay, QelSettings(compEnc, true));
}

Rig QelHttpThroughputRig(bool relay, bool compEnc) {
  return ThroughputRig(relay, QelSettings(compEnc, false), true);
}

Rig QelLinkSetupRig(bool secure) {
  Rig rig;
  const std::string settings = QelSettings(false, secure);
  Child& target = rig.Add(
      std::make_unique<Child>("qel target", [settings](Channel& c) { LinkTarget(c, settings); }));
  std::optional<std::string> ready = target.Expect("ready", kReadyTimeoutMs, &rig.failure);
  if (!ready) return rig;
  const int64_t port = FieldInt(*ready, "port");
  Child& dialer = rig.Add(std::make_unique<Child>(
      "qel dialer", [settings, port](Channel& c) { LinkDialer(c, settings, port); }));
  if (dialer.Expect("ready", kReadyTimeoutMs, &rig.failure)) rig.pinger = &dialer;
  return rig;
}

namespace {

Rig PingRig(int32_t busyPollUs) {
  Rig rig;
  Child& target = rig.Add(std::make_unique<Child>(
      "qel target", [busyPollUs](Channel& c) { PingTarget(c, busyPollUs); }));
  std::optional<std::string> ready = target.Expect("ready", kReadyTimeoutMs, &rig.failure);
  if (!ready) return rig;
  const std::string id = Field(*ready, "id");
  const int64_t port = FieldInt(*ready, "port");
  Child& pinger = rig.Add(std::make_unique<Child>(
      "qel pinger", [=](Channel& c) { Pinger(c, port, id, busyPollUs); }));
  if (pinger.Expect("ready", kReadyTimeoutMs, &rig.failure)) rig.pinger = &pinger;
  return rig;
}

}  // namespace

Rig QelPingRig() {
  return PingRig(0);
}

Rig QelBusyPingRig() {
  return PingRig(kBusyPollUs);
}

Rig QelRpcRig() {
  Rig rig;
  Child& callee = rig.Add(std::make_unique<Child>("qel rpc callee", RpcCallee));
  std::optional<std::string> ready = callee.Expect("ready", kReadyTimeoutMs, &rig.failure);
  if (!ready) return rig;
  const std::string id = Field(*ready, "id");
  const int64_t port = FieldInt(*ready, "port");
  Child& caller = rig.Add(
      std::make_unique<Child>("qel rpc caller", [=](Channel& c) { RpcCaller(c, port, id); }));
  if (caller.Expect("ready", kReadyTimeoutMs, &rig.failure)) rig.pinger = &caller;
  return rig;
}

}  // namespace qelbench
