#include "tcp_peers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "reference_codec.h"

namespace qelbench {

sockaddr_in LoopbackAddress(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, kLoopback, &address.sin_addr);
  return address;
}

void NoDelay(int fd) {
  int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// A listening socket on a free loopback port; -1 on failure.
int ListenLoopback(int64_t& port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return -1;
  sockaddr_in address = LoopbackAddress(0);
  socklen_t size = sizeof address;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(fd, 4) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    close(fd);
    return -1;
  }
  port = ntohs(address.sin_port);
  return fd;
}

int AcceptOne(int listener) {
  int fd = accept(listener, nullptr, nullptr);
  if (fd >= 0) NoDelay(fd);
  return fd;
}

int ConnectLoopback(int64_t port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return -1;
  sockaddr_in address = LoopbackAddress(static_cast<uint16_t>(port));
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  NoDelay(fd);
  return fd;
}

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool ReadExact(int fd, char* data, size_t size) {
  while (size > 0) {
    ssize_t n = read(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

namespace {

// Bytes gathered before one write, as a node gathers a loop turn's messages.
constexpr size_t kChunk = 64 * 1024;

void AppendFrame(std::string& out, std::string_view body) {
  const uint32_t size = static_cast<uint32_t>(body.size());
  out.append(reinterpret_cast<const char*>(&size), 4);
  out.append(body);
}

// Reads a socket and cuts what arrives into frames.
class FrameReader {
 public:
  explicit FrameReader(int fd) : fd_(fd), buffer_(4 * kChunk) {}

  // Reads once, then calls onFrame(body) for every complete frame; false at
  // the end of the stream or on an error.
  template <typename OnFrame>
  bool ReadSome(OnFrame&& onFrame) {
    if (used_ == buffer_.size()) buffer_.resize(buffer_.size() * 2);
    ssize_t n = read(fd_, buffer_.data() + used_, buffer_.size() - used_);
    if (n < 0 && errno == EINTR) return true;
    if (n <= 0) return false;
    used_ += static_cast<size_t>(n);
    size_t at = 0;
    while (used_ - at >= 4) {
      uint32_t size = 0;
      std::memcpy(&size, buffer_.data() + at, 4);
      if (used_ - at - 4 < size) break;
      onFrame(std::string_view(buffer_.data() + at + 4, size));
      at += 4 + size;
    }
    std::memmove(buffer_.data(), buffer_.data() + at, used_ - at);
    used_ -= at;
    return true;
  }

 private:
  int fd_;
  std::vector<char> buffer_;
  size_t used_ = 0;
};

void Receiver(Channel& channel, bool transform) {
  int64_t port = 0;
  int listener = ListenLoopback(port);
  if (listener < 0) return channel.Send("fail cannot listen");
  channel.Send("ready port=" + std::to_string(port));
  int fd = AcceptOne(listener);
  if (fd < 0) return channel.Send("fail accept");
  FrameReader reader(fd);
  while (std::optional<std::string> line = channel.Receive(-1)) {
    if (!line->starts_with("arm ")) continue;
    const int64_t target = std::atoll(line->c_str() + 4);
    channel.Send("armed");
    int64_t count = 0;
    int64_t doneAt = 0;
    int64_t wrong = 0;  // bodies that did not survive the trip
    // The application gets each body as its own string, as a node hands it.
    auto onFrame = [&](std::string_view frame) {
      std::string body = transform ? Open(frame, ReferenceKey()) : std::string(frame);
      if (body != Payload()) ++wrong;
      if (++count == target) doneAt = NowNs();
    };
    while (count < target) {
      if (!reader.ReadSome(onFrame)) return channel.Send("fail connection closed");
    }
    channel.Send("got n=" + std::to_string(target) + " t=" + std::to_string(doneAt) +
                 " wrong=" + std::to_string(wrong));
  }
}

void Sender(Channel& channel, int64_t port, bool transform) {
  int fd = ConnectLoopback(port);
  if (fd < 0) return channel.Send("fail cannot connect");
  channel.Send("ready");
  std::string out;
  out.reserve(kChunk + 1024);
  while (std::optional<std::string> line = channel.Receive(-1)) {
    if (!line->starts_with("send ")) continue;
    const int64_t n = std::atoll(line->c_str() + 5);
    channel.Send("start t=" + std::to_string(NowNs()));
    for (int64_t i = 0; i < n; ++i) {
      if (transform) {
        AppendFrame(out, Seal(Payload(), ReferenceKey()));
      } else {
        AppendFrame(out, Payload());
      }
      if (out.size() >= kChunk) {
        if (!WriteAll(fd, out.data(), out.size())) return channel.Send("fail write");
        out.clear();
      }
    }
    if (!WriteAll(fd, out.data(), out.size())) return channel.Send("fail write");
    out.clear();
  }
}

// Parses every frame and re-frames it, so it does a relay's work rather than
// a byte pump's.
void Forwarder(Channel& channel, int64_t receiverPort) {
  int64_t port = 0;
  int listener = ListenLoopback(port);
  int out = ConnectLoopback(receiverPort);
  if (listener < 0 || out < 0) return channel.Send("fail cannot listen or connect");
  channel.Send("ready port=" + std::to_string(port));
  int in = AcceptOne(listener);
  if (in < 0) return channel.Send("fail accept");
  FrameReader reader(in);
  std::string pending;
  auto onFrame = [&](std::string_view body) { AppendFrame(pending, body); };
  while (reader.ReadSome(onFrame)) {
    if (!WriteAll(out, pending.data(), pending.size())) return;
    pending.clear();
  }
}

void EchoTarget(Channel& channel) {
  int64_t port = 0;
  int listener = ListenLoopback(port);
  if (listener < 0) return channel.Send("fail cannot listen");
  channel.Send("ready port=" + std::to_string(port));
  int fd = AcceptOne(listener);
  char buffer[100];
  while (fd >= 0 && ReadExact(fd, buffer, sizeof buffer) && WriteAll(fd, buffer, sizeof buffer)) {
  }
}

void Pinger(Channel& channel, int64_t port) {
  int fd = ConnectLoopback(port);
  if (fd < 0) return channel.Send("fail cannot connect");
  channel.Send("ready");
  const std::string& text = Payload();
  char answer[100];
  while (std::optional<std::string> line = channel.Receive(-1)) {
    if (!line->starts_with("ping ")) continue;
    int64_t count = 0;
    int64_t budgetMs = 0;
    ParsePing(*line, count, budgetMs);
    std::vector<double> rtt;
    const int64_t stop = NowNs() + budgetMs * 1'000'000;
    for (int64_t i = 0; i < count && NowNs() < stop; ++i) {
      const int64_t t0 = NowNs();
      if (!WriteAll(fd, text.data(), 100) || !ReadExact(fd, answer, 100)) {
        return channel.Send("fail connection closed");
      }
      rtt.push_back(static_cast<double>(NowNs() - t0));
    }
    channel.Send(RttReport(rtt, 0));
  }
}

}  // namespace

Rig TcpThroughputRig(bool relay, bool transform) {
  Rig rig;
  Child& receiver =
      rig.Add(std::make_unique<Child>("tcp receiver", [=](Channel& c) { Receiver(c, transform); }));
  std::optional<std::string> ready = receiver.Expect("ready", kReadyTimeoutMs, &rig.failure);
  if (!ready) return rig;
  rig.receiver = &receiver;
  int64_t port = FieldInt(*ready, "port");
  if (relay) {
    Child& forwarder =
        rig.Add(std::make_unique<Child>("tcp forwarder", [=](Channel& c) { Forwarder(c, port); }));
    ready = forwarder.Expect("ready", kReadyTimeoutMs, &rig.failure);
    if (!ready) return rig;
    port = FieldInt(*ready, "port");
  }
  Child& sender = rig.Add(
      std::make_unique<Child>("tcp sender", [=](Channel& c) { Sender(c, port, transform); }));
  if (sender.Expect("ready", kReadyTimeoutMs, &rig.failure)) rig.sender = &sender;
  return rig;
}

Rig TcpPingRig() {
  Rig rig;
  Child& target = rig.Add(std::make_unique<Child>("tcp echo", EchoTarget));
  std::optional<std::string> ready = target.Expect("ready", kReadyTimeoutMs, &rig.failure);
  if (!ready) return rig;
  const int64_t port = FieldInt(*ready, "port");
  Child& pinger =
      rig.Add(std::make_unique<Child>("tcp pinger", [=](Channel& c) { Pinger(c, port); }));
  if (pinger.Expect("ready", kReadyTimeoutMs, &rig.failure)) rig.pinger = &pinger;
  return rig;
}

}  // namespace qelbench
