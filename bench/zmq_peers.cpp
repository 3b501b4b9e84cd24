#include "zmq_peers.h"

#include <zmq.h>

#include <cstdlib>
#include <cstring>

#include "reference_codec.h"

namespace qelbench {
namespace {

// A blocked send or receive gives up after this, so a broken run ends.
constexpr int kSocketTimeoutMs = 60000;

std::string Endpoint(int64_t port) {
  return std::string("tcp://") + kLoopback + ":" + std::to_string(port);
}

// A socket of the process's one context; the process exits without tearing
// them down. blocking: no time limit on sends and receives.
void* OpenSocket(int type, bool blocking = false) {
  static void* context = zmq_ctx_new();
  void* socket = zmq_socket(context, type);
  if (socket && !blocking) {
    zmq_setsockopt(socket, ZMQ_SNDTIMEO, &kSocketTimeoutMs, sizeof kSocketTimeoutMs);
    zmq_setsockopt(socket, ZMQ_RCVTIMEO, &kSocketTimeoutMs, sizeof kSocketTimeoutMs);
  }
  return socket;
}

// Binds to a free loopback port; 0 on failure.
int64_t BindAnyPort(void* socket) {
  const std::string any = std::string("tcp://") + kLoopback + ":*";
  if (zmq_bind(socket, any.c_str()) != 0) return 0;
  char endpoint[256];
  size_t size = sizeof endpoint;
  if (zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, endpoint, &size) != 0) return 0;
  const char* colon = std::strrchr(endpoint, ':');
  return colon ? std::atoll(colon + 1) : 0;
}

std::string Failure(const char* what) {
  return std::string("fail ") + what + ": " + zmq_strerror(zmq_errno());
}

void Receiver(Channel& channel, bool transform) {
  void* socket = OpenSocket(ZMQ_PULL);
  const int64_t port = socket ? BindAnyPort(socket) : 0;
  if (port == 0) return channel.Send(Failure("bind"));
  channel.Send("ready port=" + std::to_string(port));
  zmq_msg_t message;
  zmq_msg_init(&message);
  while (std::optional<std::string> line = channel.Receive(-1)) {
    if (!line->starts_with("arm ")) continue;
    const int64_t target = std::atoll(line->c_str() + 4);
    channel.Send("armed");
    int64_t wrong = 0;  // bodies that did not survive the trip
    for (int64_t count = 0; count < target; ++count) {
      if (zmq_msg_recv(&message, socket, 0) < 0) return channel.Send(Failure("receive"));
      std::string_view frame(static_cast<const char*>(zmq_msg_data(&message)),
                             zmq_msg_size(&message));
      // The application gets each body as its own string, as a node hands it.
      std::string body = transform ? Open(frame, ReferenceKey()) : std::string(frame);
      if (body != Payload()) ++wrong;
    }
    const int64_t doneAt = NowNs();
    channel.Send("got n=" + std::to_string(target) + " t=" + std::to_string(doneAt) +
                 " wrong=" + std::to_string(wrong));
  }
}

void Sender(Channel& channel, int64_t port, bool transform) {
  void* socket = OpenSocket(ZMQ_PUSH);
  if (!socket || zmq_connect(socket, Endpoint(port).c_str()) != 0) {
    return channel.Send(Failure("connect"));
  }
  channel.Send("ready");
  const std::string& text = Payload();
  while (std::optional<std::string> line = channel.Receive(-1)) {
    if (!line->starts_with("send ")) continue;
    const int64_t n = std::atoll(line->c_str() + 5);
    channel.Send("start t=" + std::to_string(NowNs()));
    for (int64_t i = 0; i < n; ++i) {
      int rc = 0;
      if (transform) {
        std::string sealed = Seal(text, ReferenceKey());
        rc = zmq_send(socket, sealed.data(), sealed.size(), 0);
      } else {
        rc = zmq_send(socket, text.data(), text.size(), 0);
      }
      if (rc < 0) return channel.Send(Failure("send"));
    }
  }
}

void Forwarder(Channel& channel, int64_t receiverPort) {
  void* frontend = OpenSocket(ZMQ_PULL, true);
  void* backend = OpenSocket(ZMQ_PUSH, true);
  const int64_t port = frontend ? BindAnyPort(frontend) : 0;
  if (port == 0 || !backend || zmq_connect(backend, Endpoint(receiverPort).c_str()) != 0) {
    return channel.Send(Failure("bind or connect"));
  }
  channel.Send("ready port=" + std::to_string(port));
  zmq_proxy(frontend, backend, nullptr);  // until the parent kills it
}

void EchoTarget(Channel& channel) {
  // No time limit: the target idles between the pinger's runs.
  void* socket = OpenSocket(ZMQ_REP, true);
  const int64_t port = socket ? BindAnyPort(socket) : 0;
  if (port == 0) return channel.Send(Failure("bind"));
  channel.Send("ready port=" + std::to_string(port));
  char buffer[256];
  for (;;) {
    int n = zmq_recv(socket, buffer, sizeof buffer, 0);
    if (n < 0 || zmq_send(socket, buffer, static_cast<size_t>(n), 0) < 0) return;
  }
}

void Pinger(Channel& channel, int64_t port) {
  void* socket = OpenSocket(ZMQ_REQ);
  if (!socket || zmq_connect(socket, Endpoint(port).c_str()) != 0) {
    return channel.Send(Failure("connect"));
  }
  channel.Send("ready");
  const std::string& text = Payload();
  char answer[256];
  while (std::optional<std::string> line = channel.Receive(-1)) {
    if (!line->starts_with("ping ")) continue;
    int64_t count = 0;
    int64_t budgetMs = 0;
    ParsePing(*line, count, budgetMs);
    std::vector<double> rtt;
    const int64_t stop = NowNs() + budgetMs * 1'000'000;
    for (int64_t i = 0; i < count && NowNs() < stop; ++i) {
      const int64_t t0 = NowNs();
      if (zmq_send(socket, text.data(), text.size(), 0) < 0 ||
          zmq_recv(socket, answer, sizeof answer, 0) < 0) {
        return channel.Send(Failure("round trip"));
      }
      rtt.push_back(static_cast<double>(NowNs() - t0));
    }
    channel.Send(RttReport(rtt, 0));
  }
}

}  // namespace

Rig ZmqThroughputRig(bool relay, bool transform) {
  Rig rig;
  Child& receiver =
      rig.Add(std::make_unique<Child>("zmq receiver", [=](Channel& c) { Receiver(c, transform); }));
  std::optional<std::string> ready = receiver.Expect("ready", kReadyTimeoutMs, &rig.failure);
  if (!ready) return rig;
  rig.receiver = &receiver;
  int64_t port = FieldInt(*ready, "port");
  if (relay) {
    Child& forwarder =
        rig.Add(std::make_unique<Child>("zmq forwarder", [=](Channel& c) { Forwarder(c, port); }));
    ready = forwarder.Expect("ready", kReadyTimeoutMs, &rig.failure);
    if (!ready) return rig;
    port = FieldInt(*ready, "port");
  }
  Child& sender = rig.Add(
      std::make_unique<Child>("zmq sender", [=](Channel& c) { Sender(c, port, transform); }));
  if (sender.Expect("ready", kReadyTimeoutMs, &rig.failure)) rig.sender = &sender;
  return rig;
}

Rig ZmqPingRig() {
  Rig rig;
  Child& target = rig.Add(std::make_unique<Child>("zmq echo", EchoTarget));
  std::optional<std::string> ready = target.Expect("ready", kReadyTimeoutMs, &rig.failure);
  if (!ready) return rig;
  const int64_t port = FieldInt(*ready, "port");
  Child& pinger =
      rig.Add(std::make_unique<Child>("zmq pinger", [=](Channel& c) { Pinger(c, port); }));
  if (pinger.Expect("ready", kReadyTimeoutMs, &rig.failure)) rig.pinger = &pinger;
  return rig;
}

}  // namespace qelbench
