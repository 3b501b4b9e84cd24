#include "transfer_figure.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>

#include "fetch_run.h"
#include "harness.h"
#include "relayed_transfer.h"
#include "rig.h"
#include "tcp_peers.h"

namespace qelbench {
namespace {

using nlohmann::json;

constexpr size_t kWrite = 256 << 10;  // the reference's reads and writes, a node's piece
constexpr int kTcpTimeoutMs = 180000;

// "fail ..." lines stop a child; the parent shows them.
void Check(bool ok, const std::string& what) {
  if (!ok) throw std::runtime_error(what);
}

// The receiving reference: per run "arm len=L offset=O cut=0|1 path=P" ->
// "armed", then one connection's L bytes written over P from O (and P cut
// to O + L when asked, as a whole file is) -> "got t=T".
void TcpFileReceiver(Channel& channel) {
  int64_t port = 0;
  const int listener = ListenLoopback(port);
  Check(listener >= 0, "cannot listen");
  channel.Send("ready port=" + std::to_string(port));
  std::vector<char> buffer(kWrite);
  while (std::optional<std::string> line = channel.Receive(-1)) {
    const int64_t length = FieldInt(*line, "len");
    int64_t at = FieldInt(*line, "offset");
    const std::string path = Field(*line, "path");
    const int file = open(path.c_str(), O_WRONLY | O_CREAT, 0644);
    Check(file >= 0, "cannot write " + path);
    channel.Send("armed");
    const int socket = AcceptOne(listener);
    Check(socket >= 0, "accept failed");
    for (int64_t left = length; left > 0;) {
      const ssize_t got = read(socket, buffer.data(), buffer.size());
      Check(got > 0, "the sender stopped early");
      for (ssize_t put = 0; put < got;) {
        const ssize_t n = pwrite(file, buffer.data() + put, static_cast<size_t>(got - put), at);
        Check(n > 0, "cannot write " + path);
        put += n;
        at += n;
      }
      left -= got;
    }
    if (FieldInt(*line, "cut") != 0) Check(ftruncate(file, at) == 0, "cannot write " + path);
    channel.Send("got t=" + std::to_string(NowNs()));
    close(socket);
    close(file);
  }
}

// The sending reference: "send port=P offset=O len=L path=F" -> "start t=T"
// as it starts reading F.
void TcpFileSender(Channel& channel) {
  channel.Send("ready");
  std::vector<char> buffer(kWrite);
  while (std::optional<std::string> line = channel.Receive(-1)) {
    const int socket = ConnectLoopback(FieldInt(*line, "port"));
    Check(socket >= 0, "cannot connect");
    const std::string path = Field(*line, "path");
    const int file = open(path.c_str(), O_RDONLY);
    Check(file >= 0, "cannot read " + path);
    channel.Send("start t=" + std::to_string(NowNs()));
    int64_t at = FieldInt(*line, "offset");
    for (int64_t left = FieldInt(*line, "len"); left > 0;) {
      const ssize_t got = pread(file, buffer.data(), std::min<int64_t>(left, kWrite), at);
      Check(got > 0, "cannot read " + path);
      Check(WriteAll(socket, buffer.data(), static_cast<size_t>(got)), "the receiver is gone");
      at += got;
      left -= got;
    }
    close(file);
    close(socket);
  }
}

// A serving and a fetching `qel node`, linked.
struct QelPair {
  std::unique_ptr<Child> server, client;
  std::string serverID;
};

// extra: more options for both nodes (the secure pair's).
QelPair StartPair(const std::string& qelBinary, const std::string& share, const std::string& tag,
                  const std::vector<std::string>& extra, std::string& failure) {
  QelPair p;
  std::vector<std::string> args = {qelBinary, "node", "--json", "--port", "0", "--share", share};
  args.insert(args.end(), extra.begin(), extra.end());
  p.server = RunProgram(tag + "-server", args, kNodeLifetimeSeconds);
  std::optional<json> ready = WaitLine(
      *p.server, [](const json& l) { return l.value("event", "") == "Ready"; }, kReadyTimeoutMs,
      failure);
  if (!ready) return p;
  p.serverID = (*ready)["ID"];
  const std::string address = (*ready)["Address"];
  args = {qelBinary, "node", "--json", "--port", "0", "--connect", address};
  args.insert(args.end(), extra.begin(), extra.end());
  p.client = RunProgram(tag + "-client", args, kNodeLifetimeSeconds);
  // A secure link is up once its handshake is done, after connect returned.
  std::optional<json> linked = WaitLine(
      *p.client, [](const json& l) { return l.value("event", "") == "ConnectionEstab"; },
      kReadyTimeoutMs, failure);
  if (!linked) failure = tag + "-client: no link";
  return p;
}

struct Contenders {
  QelPair qel, secure;
  std::string qelFailure, secureFailure;
  std::unique_ptr<Child> receiver, sender;
  int64_t receiverPort = 0;
  std::string failure;
};

Contenders Start(const std::string& qelBinary, const std::string& share) {
  Contenders c;
  c.qel = StartPair(qelBinary, share, "qel", {}, c.qelFailure);
  c.secure = StartPair(qelBinary, share, "qel-tls", {"--secure", "require"}, c.secureFailure);
  c.receiver = std::make_unique<Child>("tcp-receiver", TcpFileReceiver, kNodeLifetimeSeconds);
  c.sender = std::make_unique<Child>("tcp-sender", TcpFileSender, kNodeLifetimeSeconds);
  std::optional<std::string> line = c.receiver->Expect("ready", kReadyTimeoutMs, &c.failure);
  if (line) c.receiverPort = FieldInt(*line, "port");
  if (line && !c.sender->Expect("ready", kReadyTimeoutMs, &c.failure)) c.receiverPort = 0;
  return c;
}

std::optional<double> TcpRun(Contenders& c, const Span& span, const std::string& source,
                             const std::string& target, std::string& why) {
  c.receiver->channel().Send("arm len=" + std::to_string(span.length) +
                             " offset=" + std::to_string(span.offset) +
                             " cut=" + (span.offset == 0 ? "1" : "0") + " path=" + target);
  if (!c.receiver->Expect("armed", 5000, &why)) return std::nullopt;
  c.sender->channel().Send("send port=" + std::to_string(c.receiverPort) +
                           " offset=" + std::to_string(span.offset) +
                           " len=" + std::to_string(span.length) + " path=" + source);
  std::optional<std::string> start = c.sender->Expect("start", 5000, &why);
  if (!start) return std::nullopt;
  std::optional<std::string> got = c.receiver->Expect("got", kTcpTimeoutMs, &why);
  if (!got) return std::nullopt;
  return static_cast<double>(span.length) * 1e9 /
         static_cast<double>(FieldInt(*got, "t") - FieldInt(*start, "t"));
}

}  // namespace

void TransferFigures(const std::string& qelBinary, const std::string& folder, int64_t bytes,
                     int runs, const TransferParts& parts) {
  const std::string share = folder + "/share";
  const std::string source = share + "/big";
  const std::string target = folder + "/fetched";
  std::filesystem::create_directories(share);
  WriteRandomFile(source, bytes);
  Contenders c = Start(qelBinary, share);

  std::vector<std::pair<const char*, Span>> figures;
  if (parts.whole) figures.push_back({"whole", {0, bytes}});
  if (parts.range)
    figures.push_back({"range", {bytes / 2, std::min<int64_t>(bytes / 2, 100 << 20)}});
  for (const auto& [kind, span] : figures) {
    std::vector<double> qel, secure, tcp;
    std::string qelFailure = c.qelFailure, secureFailure = c.secureFailure, tcpFailure = c.failure;
    // A first run of each warms the page cache and the connections.
    // All write over the same file in place, as `get` does, and cut it to
    // length at the end.
    for (int run = 0; run <= runs; ++run) {
      for (auto [pair, rates, why] : {std::tuple{&c.qel, &qel, &qelFailure},
                                      std::tuple{&c.secure, &secure, &secureFailure}}) {
        if (!why->empty()) continue;
        std::optional<double> rate =
            Fetch(*pair->client, pair->serverID, span, bytes, source, target, *why);
        if (rate && run > 0) rates->push_back(*rate);
        // The serving node prints a line per ranged request: read them, so
        // its pipe never fills and holds it up in the next run.
        std::string ignored;
        Drain(pair->server.get(), ignored);
      }
      if (tcpFailure.empty()) {
        std::optional<double> rate = TcpRun(c, span, source, target, tcpFailure);
        if (rate && run > 0) tcp.push_back(*rate);
      }
    }
    std::printf("file transfer %s %lld MiB: %s  %s  %s", kind,
                static_cast<long long>(span.length >> 20), Show("qel", qel, qelFailure).c_str(),
                Show("qel-tls", secure, secureFailure).c_str(),
                Show("tcp", tcp, tcpFailure).c_str());
    if (qelFailure.empty()) {
      // Peaks so far: the whole file was served before the range.
      std::printf("  (qel peak RSS: serving %s, fetching %s)",
                  Mebibytes(PeakRssKiB(c.qel.server->pid())).c_str(),
                  Mebibytes(PeakRssKiB(c.qel.client->pid())).c_str());
    }
    std::printf("\n");
    std::fflush(stdout);
  }
  if (parts.relayed) {
    RelayedFigure({c.qel.server.get(), c.qel.client.get(), c.qel.serverID, c.qelFailure}, qelBinary,
                  share, source, target, bytes, runs);
  }
  c = Contenders{};
  std::filesystem::remove_all(folder);
}

}  // namespace qelbench
