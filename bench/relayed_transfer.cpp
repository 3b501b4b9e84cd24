#include "relayed_transfer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <vector>

#include <nlohmann/json.hpp>

#include "fetch_run.h"
#include "rig.h"

namespace qelbench {
namespace {

using nlohmann::json;

// What the figure is held to: the relayed rate beside a direct transfer's,
// and the relay's memory however fast the serving node sends.
constexpr double kRatioTarget = 0.8;
constexpr double kRelayPeakTargetKiB = 64 * 1024;

// A serving node, a relay linked to it and to a fetching node, and nothing
// else: the fetching node reaches the serving one only through the relay.
struct Relayed {
  std::unique_ptr<Child> serving, relay, fetching;
  std::string servingID;
  std::string failure;
};

std::optional<json> WaitReady(Child& node, std::string& why) {
  return WaitLine(
      node, [](const json& l) { return l.value("event", "") == "Ready"; }, kReadyTimeoutMs, why);
}

Relayed StartRelayed(const std::string& qelBinary, const std::string& share) {
  Relayed r;
  r.serving =
      RunProgram("qel-serving", {qelBinary, "node", "--json", "--port", "0", "--share", share},
                 kNodeLifetimeSeconds);
  std::optional<json> serving = WaitReady(*r.serving, r.failure);
  if (!serving) return r;
  r.servingID = (*serving)["ID"];
  r.fetching = RunProgram("qel-fetching", {qelBinary, "node", "--json", "--port", "0"},
                          kNodeLifetimeSeconds);
  std::optional<json> fetching = WaitReady(*r.fetching, r.failure);
  if (!fetching) return r;
  // The relay dials both; neither end dials anyone.
  r.relay = RunProgram("qel-relay",
                       {qelBinary, "node", "--json", "--port", "0", "--connect",
                        (*serving)["Address"].get<std::string>(), "--connect",
                        (*fetching)["Address"].get<std::string>()},
                       kNodeLifetimeSeconds);
  for (int link = 0; link < 2; ++link) {
    std::optional<json> connected = WaitLine(
        *r.relay, [](const json& l) { return IsCommand(l, "connect"); }, kReadyTimeoutMs,
        r.failure);
    if (!connected) return r;
    if (!connected->value("ok", false)) {
      r.failure = "qel-relay: cannot connect: " + connected->dump();
      return r;
    }
  }
  if (!WaitLine(
          *r.fetching, [](const json& l) { return l.value("event", "") == "ConnectionEstab"; },
          kReadyTimeoutMs, r.failure)) {
    return r;
  }
  // Asked afresh, so the answer crossed the relay; and it must say indirect.
  r.fetching->channel().Send("nodes " + r.servingID + " fresh");
  std::optional<json> nodes = WaitLine(
      *r.fetching, [](const json& l) { return IsCommand(l, "nodes"); }, kReadyTimeoutMs, r.failure);
  if (!nodes) return r;
  bool indirect = false;
  if (nodes->value("ok", false) && (*nodes)["value"].is_array()) {
    for (const json& record : (*nodes)["value"]) {
      if (record.value("ID", "") == r.servingID) indirect = !record.value("directConn", true);
    }
  }
  if (!indirect)
    r.failure = "qel-fetching: the serving node is not reached through the relay: " + nodes->dump();
  return r;
}

// Starts a new peak resident memory for pid (Linux 4.0 and later); false
// when the kernel refuses, and the peak runs from the process's start.
bool ResetPeakRss(pid_t pid) {
  const int file = open(("/proc/" + std::to_string(pid) + "/clear_refs").c_str(), O_WRONLY);
  if (file < 0) return false;
  const bool reset = write(file, "5", 1) == 1;
  close(file);
  return reset;
}

// "[target ≥ 0.8: met]".
std::string Target(const char* what, bool met) {
  return std::string(" [target ") + what + (met ? ": met]" : ": missed]");
}

}  // namespace

// A run that fails starts three fresh nodes for the next (the old fetcher
// may still wait for its file): a relay that cuts a transfer now and then
// still shows its rate and its memory. At worst every run waits out a stall.
void RelayedFigure(const DirectPair& pair, const std::string& qelBinary, const std::string& share,
                   const std::string& source, const std::string& target, int64_t bytes, int runs) {
  const Span whole{0, bytes};
  Relayed r = StartRelayed(qelBinary, share);
  std::string directFailure = pair.failure;
  std::string relayedFailure;  // the first
  int failures = 0;
  bool peaksPerRun = true;
  std::vector<double> direct, relayed, ratios, relayPeaks, servingPeaks, fetchingPeaks;
  for (int run = 0; run <= runs; ++run) {
    std::optional<double> directRate;
    // CPU seconds each process spent on a transfer: on a machine with fewer
    // cores than processes, the relay's copies come out of the others' time.
    double directCpu[2] = {-1, -1};        // serving, fetching
    double relayedCpu[3] = {-1, -1, -1};  // relay, serving, fetching
    if (directFailure.empty()) {
      const double before[2] = {CpuSeconds(pair.server->pid()), CpuSeconds(pair.client->pid())};
      directRate = Fetch(*pair.client, pair.serverID, whole, bytes, source, target, directFailure);
      directCpu[0] = CpuSeconds(pair.server->pid()) - before[0];
      directCpu[1] = CpuSeconds(pair.client->pid()) - before[1];
      std::string ignored;
      Drain(pair.server, ignored);
    }
    std::string why = r.failure;
    std::optional<double> relayedRate;
    int64_t peaks[3] = {-1, -1, -1};  // relay, serving, fetching
    if (why.empty()) {
      Child* const nodes[3] = {r.relay.get(), r.serving.get(), r.fetching.get()};
      for (Child* node : nodes) peaksPerRun = ResetPeakRss(node->pid()) && peaksPerRun;
      double before[3];
      for (int i = 0; i < 3; ++i) before[i] = CpuSeconds(nodes[i]->pid());
      relayedRate = Fetch(*r.fetching, r.servingID, whole, bytes, source, target, why);
      for (int i = 0; i < 3; ++i) relayedCpu[i] = CpuSeconds(nodes[i]->pid()) - before[i];
      // Read while the nodes live, before a failure's restart ends them.
      for (int i = 0; i < 3; ++i) peaks[i] = PeakRssKiB(nodes[i]->pid());
      std::string trouble;
      Drain(r.relay.get(), trouble, relayedRate ? 0 : 2000);
      Drain(r.serving.get(), trouble, relayedRate ? 0 : 2000);
      if (!relayedRate && !trouble.empty()) why += "; " + trouble;
    }
    std::string line =
        "file transfer relayed run " + std::to_string(run) + (run == 0 ? " (warm-up)" : "") + ":";
    if (relayedRate) {
      line += " relayed " + Megabytes(*relayedRate);
    } else {
      line += " relayed failed (" + why + ")";
      if (relayedFailure.empty()) relayedFailure = why;
      ++failures;
      r = Relayed{};
      if (run < runs) r = StartRelayed(qelBinary, share);
    }
    line += directRate ? "  direct " + Megabytes(*directRate)
                       : "  direct failed (" + directFailure + ")";
    if (relayedRate && directRate) {
      char ratio[32];
      std::snprintf(ratio, sizeof ratio, "  ratio %.2f", *relayedRate / *directRate);
      line += ratio;
    }
    line += "  peak RSS: relay " + Mebibytes(peaks[0]) + ", serving " + Mebibytes(peaks[1]) +
            ", fetching " + Mebibytes(peaks[2]);
    char cpu[160];
    std::snprintf(cpu, sizeof cpu,
                  "  CPU s: relay %.2f, serving %.2f, fetching %.2f; direct serving %.2f, "
                  "fetching %.2f",
                  relayedCpu[0], relayedCpu[1], relayedCpu[2], directCpu[0], directCpu[1]);
    line += cpu;
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
    // Every run's peaks count, the warm-up's and a failed run's too: what a
    // relay holds does not depend on warm pages, and one that gave up held
    // the most.
    if (peaks[0] >= 0) {
      relayPeaks.push_back(static_cast<double>(peaks[0]));
      servingPeaks.push_back(static_cast<double>(peaks[1]));
      fetchingPeaks.push_back(static_cast<double>(peaks[2]));
    }
    if (run == 0) continue;  // a first run warms the connections and the copy's pages
    if (directRate) direct.push_back(*directRate);
    if (relayedRate) {
      relayed.push_back(*relayedRate);
      if (directRate) ratios.push_back(*relayedRate / *directRate);
    }
  }

  std::string line = "file transfer relayed " + std::to_string(bytes >> 20) + " MiB:";
  if (relayed.empty()) {
    line += " qel relayed failed (" + (relayedFailure.empty() ? "no run" : relayedFailure) + ")";
  } else {
    line += " " + Show("qel relayed", relayed, "");
  }
  line += "  " + Show("qel direct", direct, directFailure);
  if (!ratios.empty()) {
    const Summary ratio = Summarise(ratios);
    char text[32];
    std::snprintf(text, sizeof text, "%.2f ", ratio.median);
    line += std::string("  ratio ") + text + FormatSpread(ratio) +
            Target("≥ 0.8", ratio.median >= kRatioTarget);
  }
  if (!relayPeaks.empty()) {
    const Summary relay = Summarise(relayPeaks);
    line += "  relay peak RSS " + Mebibytes(static_cast<int64_t>(relay.median)) + " (max " +
            Mebibytes(static_cast<int64_t>(relay.max)) + ", warm-up included)" +
            Target("≤ 64 MiB", relay.max <= kRelayPeakTargetKiB);
    line += "  (serving " + Mebibytes(static_cast<int64_t>(Summarise(servingPeaks).median)) +
            ", fetching " + Mebibytes(static_cast<int64_t>(Summarise(fetchingPeaks).median)) +
            (peaksPerRun ? ")" : "; peaks since each node started)");
  }
  if (!relayed.empty() && failures > 0) {
    line += "  relayed failed in " + std::to_string(failures) + " of " + std::to_string(runs + 1) +
            " runs, warm-up included; first: " + relayedFailure;
  }
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

}  // namespace qelbench
