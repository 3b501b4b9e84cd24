// QEL's figures on loopback, each beside the same job done with plain TCP
// and with ZeroMQ in the same run. Every role runs in a process of its own,
// forked from this one; this process only coordinates and never opens a
// node, so each child starts clean.
//
//   qel_figures [--runs N] [--verbose] [--only TEXT] [--with qel,qel-tls,qel-http,qel-busy,tcp,zmq]
//
// --only keeps the figures whose name contains TEXT ("direct plain", "relay",
// "ping", "rpc", "link set-up", "codec", "md5", "file transfer", "file transfer relayed", "scale",
// "amplification");
// --with keeps the listed contenders (qel, qel-tls, qel-http, tcp, zmq; handy under perf).
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "amplification_figure.h"
#include "codec_figure.h"
#include "harness.h"
#include "hash_figure.h"
#include "qel_peers.h"
#include "rig.h"
#include "scale_figure.h"
#include "tcp_peers.h"
#include "transfer_figure.h"
#include "zmq_peers.h"

namespace qelbench {
namespace {

struct Options {
  int runs = 5;
  bool verbose = false;
  std::string only;
  std::string with = "qel,qel-tls,qel-http,qel-busy,tcp,zmq";
};

bool WantFigure(const Options& options, const std::string& figure) {
  return figure.find(options.only) != std::string::npos;
}

bool WantContender(const Options& options, const std::string& name) {
  return ("," + options.with + ",").find("," + name + ",") != std::string::npos;
}

// Holds this process (and the children it forks meanwhile) on its first
// allowed CPU while alive.
class OneCpu {
 public:
  OneCpu() {
    sched_getaffinity(0, sizeof before_, &before_);
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
      if (CPU_ISSET(cpu, &before_)) {
        CPU_SET(cpu, &one);
        break;
      }
    }
    sched_setaffinity(0, sizeof one, &one);
  }
  ~OneCpu() { sched_setaffinity(0, sizeof before_, &before_); }
  OneCpu(const OneCpu&) = delete;
  OneCpu& operator=(const OneCpu&) = delete;

 private:
  cpu_set_t before_;
};

// Messages per timed run: enough for about kRunSeconds at the rate the
// warm-up showed, within these bounds.
constexpr double kRunSeconds = 0.5;
constexpr int64_t kMinMessages = 20'000;
constexpr int64_t kMaxMessages = 200'000;
constexpr int64_t kWarmUpMessages = 20'000;
// Round trips per timed run, and the time a run may take at most.
constexpr int64_t kPings = 2000;
constexpr int64_t kPingBudgetMs = 1500;

// One contender's result for one figure.
struct Outcome {
  std::string name;
  Summary summary;
  std::string failure;
};

void Note(const Options& options, const std::string& text) {
  if (options.verbose) std::fprintf(stderr, "  %s\n", text.c_str());
}

// One timed run: from the sender's first message to the receiver's Nth.
std::optional<double> RunThroughput(Rig& rig, int64_t n, std::string& why) {
  const std::string count = std::to_string(n);
  rig.receiver->channel().Send("arm " + count);
  if (!rig.receiver->Expect("armed", 5000, &why)) return std::nullopt;
  rig.sender->channel().Send("send " + count);
  std::optional<std::string> start = rig.sender->Expect("start", 15000, &why);
  if (!start) return std::nullopt;
  std::optional<std::string> got = rig.receiver->Expect("got", 70000, &why);
  if (!got) return std::nullopt;
  if (FieldInt(*got, "wrong") != 0) {
    why = rig.receiver->name() + ": " + Field(*got, "wrong") + " bodies arrived altered";
    return std::nullopt;
  }
  const double seconds = static_cast<double>(FieldInt(*got, "t") - FieldInt(*start, "t")) / 1e9;
  if (seconds <= 0) {
    why = "clock went backwards";
    return std::nullopt;
  }
  return static_cast<double>(n) / seconds;
}

// One contender of a figure: its processes and what its runs gave.
struct Entry {
  std::string name;
  Rig rig;
  std::string failure;
  int64_t perRun = 0;
  std::vector<double> samples;  // rates, or each run's median round trip
  std::vector<double> tails;    // each run's p99 round trip
  std::string detail;           // for --verbose
};

// Proves that messages get through, warms up, and sizes the timed runs.
void PrepareThroughput(Entry& entry) {
  Rig& rig = entry.rig;
  if (!rig.sender || !rig.receiver) {
    entry.failure = rig.failure;
    return;
  }
  if (!RunThroughput(rig, 1000, entry.failure)) return;
  std::optional<double> warm = RunThroughput(rig, kWarmUpMessages, entry.failure);
  if (!warm) return;
  int64_t n = static_cast<int64_t>(*warm * kRunSeconds) / 1000 * 1000;
  entry.perRun = std::clamp(n, kMinMessages, kMaxMessages);
  entry.detail = "warm-up " + FormatRate(*warm) + " msg/s; " + std::to_string(entry.perRun) +
                 " messages per run:";
}

// One timed ping run; false (with entry.failure set) when a ping went
// unanswered or none was made.
bool RunPing(Entry& entry, int64_t count, bool keep) {
  Child& pinger = *entry.rig.pinger;
  pinger.channel().Send("ping " + std::to_string(count) + " ms=" + std::to_string(kPingBudgetMs));
  std::optional<std::string> report = pinger.Expect("rtt", kPingBudgetMs + 30000, &entry.failure);
  if (!report) return false;
  if (FieldInt(*report, "fail") > 0) {
    entry.failure = pinger.name() + ": " + Field(*report, "fail") + " round trips failed";
    return false;
  }
  if (FieldInt(*report, "n") == 0) {
    entry.failure = pinger.name() + ": no round trip";
    return false;
  }
  if (keep) {
    entry.samples.push_back(FieldDouble(*report, "p50"));
    entry.tails.push_back(FieldDouble(*report, "p99"));
    entry.detail += " n=" + Field(*report, "n") + " p50=" + FormatNs(entry.samples.back()) +
                    " p99=" + FormatNs(entry.tails.back()) + ";";
  }
  return true;
}

// Runs take turns between the contenders, so a change in the machine's load
// (other work on a shared host) falls on all of them alike.
template <typename RunOnce>
void TakeTurns(std::vector<Entry>& entries, int runs, RunOnce&& runOnce) {
  for (int run = 0; run < runs; ++run) {
    for (Entry& entry : entries) {
      if (entry.failure.empty()) runOnce(entry);
    }
  }
}

// "qel 412k msg/s (±3%)", or why there is no figure.
std::string Show(const Outcome& outcome, const std::function<std::string(double)>& format) {
  if (!outcome.failure.empty()) return outcome.name + " failed (" + outcome.failure + ")";
  return outcome.name + " " + format(outcome.summary.median) + " " + FormatSpread(outcome.summary);
}

// extra follows the figures, for a contender that has none.
void PrintLine(const std::string& figure, const std::vector<Outcome>& outcomes,
               const std::function<std::string(double)>& format, const std::string& extra = "") {
  std::string line = figure + ":";
  for (size_t i = 0; i < outcomes.size(); ++i) {
    line += (i == 0 ? " " : "  ") + Show(outcomes[i], format);
  }
  line += extra;
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

std::string Rate(double perSecond) {
  return FormatRate(perSecond) + " msg/s";
}

void ThroughputFigures(bool relay, const Options& options) {
  for (bool compEnc : {false, true}) {
    const std::string figure = std::string("throughput ") + (relay ? "relay " : "direct ") +
                               (compEnc ? "comp+enc" : "plain");
    if (!WantFigure(options, figure)) continue;
    Note(options, figure);
    // TLS beside plaintext in the same run: what a secure link costs.
    const std::pair<const char*, Rig (*)(bool, bool)> contenders[] = {
        {"qel", QelThroughputRig},
        {"qel-tls", QelSecureThroughputRig},
        {"qel-http", QelHttpThroughputRig},
        {"tcp", TcpThroughputRig},
        {"zmq", ZmqThroughputRig}};
    std::vector<Entry> entries;
    for (const auto& [name, build] : contenders) {
      if (!WantContender(options, name)) continue;
      if (compEnc && (name == std::string("qel-tls") || name == std::string("qel-http"))) continue;
      Entry& entry = entries.emplace_back(Entry{name, build(relay, compEnc)});
      PrepareThroughput(entry);
    }
    TakeTurns(entries, options.runs, [](Entry& entry) {
      std::optional<double> rate = RunThroughput(entry.rig, entry.perRun, entry.failure);
      if (!rate) return;
      entry.samples.push_back(*rate);
      entry.detail += " " + FormatRate(*rate);
    });
    std::vector<Outcome> outcomes;
    for (Entry& entry : entries) {
      Note(options, entry.name + ": " + entry.detail);
      outcomes.push_back({entry.name, Summarise(entry.samples), entry.failure});
    }
    PrintLine(figure, outcomes, Rate);
  }
}

// Round trips of 100 bytes and back: the QEL contenders' way (a ping, a
// remote procedure call) beside the references' echo.
using Contender = std::pair<const char*, Rig (*)()>;
void RoundTripFigures(const Options& options, const std::string& figure,
                      std::vector<Contender> contenders) {
  Note(options, figure);
  contenders.insert(contenders.end(), {{"tcp", TcpPingRig}, {"zmq", ZmqPingRig}});
  std::vector<Entry> entries;
  for (const auto& [name, build] : contenders) {
    if (!WantContender(options, name)) continue;
    Entry& entry = entries.emplace_back(Entry{name, build()});
    if (!entry.rig.pinger) {
      entry.failure = entry.rig.failure;
    } else {
      RunPing(entry, kPings / 10, false);  // warm-up
    }
  }
  TakeTurns(entries, options.runs, [](Entry& entry) { RunPing(entry, kPings, true); });
  std::vector<Outcome> medians;
  std::vector<Outcome> tails;
  for (Entry& entry : entries) {
    Note(options, entry.name + ":" + entry.detail);
    medians.push_back({entry.name, Summarise(entry.samples), entry.failure});
    tails.push_back({entry.name, Summarise(entry.tails), entry.failure});
  }
  PrintLine(figure + " median", medians, FormatNs);
  PrintLine(figure + " p99", tails, FormatNs);
}

// Links brought up and closed again between two nodes, plaintext and TLS:
// the TCP connect, the handshake, both INFOs and the close.
void LinkSetupFigures(const Options& options) {
  const std::string figure = "link set-up";
  Note(options, figure);
  std::vector<Entry> entries;
  for (bool secure : {false, true}) {
    const char* name = secure ? "qel-tls" : "qel";
    if (!WantContender(options, name)) continue;
    Entry& entry = entries.emplace_back(Entry{name, QelLinkSetupRig(secure)});
    if (!entry.rig.pinger) {
      entry.failure = entry.rig.failure;
    } else {
      RunPing(entry, 20, false);  // warm-up
    }
  }
  TakeTurns(entries, options.runs, [](Entry& entry) { RunPing(entry, 200, true); });
  std::vector<Outcome> outcomes;
  for (Entry& entry : entries) {
    Note(options, entry.name + ":" + entry.detail);
    outcomes.push_back({entry.name, Summarise(entry.samples), entry.failure});
  }
  auto perSecond = [](double ns) { return FormatRate(1e9 / ns) + " links/s"; };
  PrintLine(figure, outcomes, perSecond);
}

void CodecFigures(const Options& options) {
  Note(options, "codec");
  const int runs = options.runs;
  Child child("codec", [runs](Channel& c) { CodecChild(c, runs); });
  const std::vector<std::string> names = {"qel-plain", "frame-plain", "qel-body", "frame-body"};
  // The body reference is what the tcp and zmq peers do to each body.
  const std::vector<std::string> shown = {"qel", "tcp-frame", "qel", "tcp/zmq xor+zlib"};
  std::vector<std::vector<double>> samples(names.size());
  std::string failure;
  for (;;) {
    std::optional<std::string> line = child.Expect("", 60000, &failure);
    if (!line) break;
    if (*line == "done") break;
    if (line->starts_with("fail")) {
      failure = "codec: " + *line;
      break;
    }
    auto at = std::find(names.begin(), names.end(), Field(*line, "case"));
    if (at != names.end()) samples[at - names.begin()].push_back(FieldDouble(*line, "ns"));
  }
  std::vector<Outcome> outcomes;
  for (size_t i = 0; i < names.size(); ++i) {
    Outcome o{shown[i], Summarise(samples[i]), failure};
    if (failure.empty() && samples[i].size() != static_cast<size_t>(runs)) {
      o.failure = "codec: incomplete";
    }
    outcomes.push_back(o);
  }
  auto perMessage = [](double ns) { return FormatNs(ns) + "/msg"; };
  const std::string noZmq = "  zmq n/a (its framing is not reachable through its API)";
  PrintLine("codec serialise+parse 100-byte MSG", {outcomes[0], outcomes[1]}, perMessage, noZmq);
  PrintLine("codec body encode+decode comp+enc", {outcomes[2], outcomes[3]}, perMessage);
}

}  // namespace
}  // namespace qelbench

int main(int argc, char** argv) {
  using namespace qelbench;
  Options options;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--runs" && i + 1 < argc) {
      options.runs = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--verbose" || arg == "-v") {
      options.verbose = true;
    } else if (arg == "--only" && i + 1 < argc) {
      options.only = argv[++i];
    } else if (arg == "--with" && i + 1 < argc) {
      options.with = argv[++i];
    } else {
      std::fprintf(stderr,
                   "usage: %s [--runs N] [--verbose] [--only TEXT] [--with qel,qel-tls,qel-http,qel-busy,tcp,zmq]\n",
                   argv[0]);
      return 2;
    }
  }
  signal(SIGPIPE, SIG_IGN);
  UseLoopback();
  // The nodes read per-user settings (debug mode among them); an empty
  // configuration home keeps a developer's settings out of the figures.
  char home[] = "/tmp/qel-bench-XXXXXX";
  if (!mkdtemp(home)) {
    std::perror("mkdtemp");
    return 1;
  }
  setenv("XDG_CONFIG_HOME", home, 1);

  std::printf(
      "# loopback %s, 100-byte messages, each role in its own process; median of %d runs "
      "after a warm-up, runs taking turns between contenders; (±) is half the min-max "
      "spread.\n"
      "# comp+enc: the nodes compress and encrypt; the references XOR and zlib-9 each body "
      "the same way.\n",
      kLoopback, options.runs);
  std::fflush(stdout);
  ThroughputFigures(false, options);
  ThroughputFigures(true, options);
  const std::vector<Contender> pings = {{"qel", QelPingRig}, {"qel-busy", QelBusyPingRig}};
  if (WantFigure(options, "ping round trip")) RoundTripFigures(options, "ping round trip", pings);
  if (WantFigure(options, "ping round trip pinned")) {
    // Every process of the figure on one CPU: the peer's wake-up then never
    // waits for another CPU, and busy polling competes with the peer.
    const OneCpu pinned;
    RoundTripFigures(options, "ping round trip pinned", pings);
  }
  // The callee answers from inside its handler; tcp and zmq echo as for ping.
  if (WantFigure(options, "rpc round trip")) RoundTripFigures(options, "rpc round trip", {{"qel", QelRpcRig}});
  if (WantFigure(options, "link set-up")) LinkSetupFigures(options);
  if (WantFigure(options, "codec")) CodecFigures(options);
  // md5sum, like every other reference, runs on the same file in the same run.
  if (WantFigure(options, "md5")) HashFigure(home, int64_t{1} << 30, options.runs);
  const TransferParts transfers{WantFigure(options, "file transfer whole"),
                                WantFigure(options, "file transfer range"),
                                WantFigure(options, "file transfer relayed")};
  if (transfers.whole || transfers.range || transfers.relayed) {
    // In memory where the machine allows: the figure is the transfer, and a
    // disk's write-back would land on whichever contender runs next.
    std::error_code ec;
    const bool shm = std::filesystem::is_directory("/dev/shm", ec);
    const std::string folder = (shm ? std::string("/dev/shm") : std::string(home)) +
                               "/qel-transfer-" + std::to_string(getpid());
    TransferFigures(QEL_CLI_PATH, folder, int64_t{1} << 30, options.runs, transfers);
  }
  // Many nodes of one process; QEL alone, the references have no overlay.
  for (int32_t nodes : {100, 1000}) {
    if (WantFigure(options, "scale " + std::to_string(nodes) + " nodes")) {
      ScaleFigure(nodes, options.runs, options.verbose);
    }
  }
  // A raw peer's bursts and a broadcast flood on a ring, with the duplicate
  // window and without it (the classic nodes' behaviour).
  for (int32_t dupWindow : {60, 0}) {
    if (WantFigure(options, "amplification dupWindow " + std::to_string(dupWindow))) {
      AmplificationFigure(dupWindow, 100'000);
    }
  }
  std::filesystem::remove_all(home);
  return 0;
}
