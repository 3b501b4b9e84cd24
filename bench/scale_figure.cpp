#include "scale_figure.h"

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <memory>
#include <numeric>
#include <random>
#include <set>
#include <stdexcept>
#include <unordered_map>
#include <utility>
#include <vector>

#include <qel/qel.h>

#include "harness.h"

namespace qelbench {
namespace {

// The settings are the defaults but one, and these choices keep them
// sufficient:
// - Timeout 10 s, not 500 ms: Connect waits for its link while the loop
//   handles the floods of the links dialled just before, which at 1000 nodes
//   on a busy machine took longer than 500 ms. Nothing else here waits on it.
// - TTL 20 crosses the graph: two random cycles over 1000 nodes give a
//   diameter near 8, and Run checks it.
// - maxConnections 1024 and memoryBudget are far above what 4 links need.
// - packetCache 50: every link's two announcements flood the whole graph,
//   and a node that forgets a flood's ID while copies of it still arrive
//   passes them on again. Links are dialled kDialBatch at a time and
//   directed messages sent kWave at a time, each batch left to die out before
//   the next, so no node sees more than about 2 * kDialBatch floods at once.
// - maxRoutes 10: each node keeps the routes of the last 10 floods that
//   passed it, hence waves of kWave = 10 (see Directed).
constexpr uint64_t kSeed = 1000;
constexpr int32_t kDialBatch = 10;
constexpr int32_t kWave = 10;
constexpr int32_t kDirected = 1000;
// The loop has turned for this long without a message arriving: every flood
// has died out (a copy written in one turn is read in the next).
constexpr int64_t kQuietNs = 20'000'000;
// What one broadcast, wave or settling may take at most.
constexpr int64_t kWaitNs = 60'000'000'000;
// Descriptors a node takes: its listener and its end of each of its four
// links (both ends of a link are in this process).
constexpr int64_t kDescriptorsPerNode = 5;
constexpr unsigned kLifetimeSeconds = 1800;

std::string NodeSettings() {
  qel::cSettings settings;
  settings.SaveSetting("Timeout", 10000);
  return settings.getXML();
}

using Edge = std::pair<int32_t, int32_t>;  // the first node dials the second

// Two random Hamiltonian cycles over the nodes, drawn again until they share
// no link: four links per node, connected by construction.
std::vector<Edge> RandomGraph(int32_t n, std::mt19937_64& random) {
  std::vector<int32_t> order(static_cast<size_t>(n));
  for (;;) {
    std::vector<Edge> edges;
    std::set<Edge> links;
    for (int cycle = 0; cycle < 2; ++cycle) {
      std::iota(order.begin(), order.end(), 0);
      std::shuffle(order.begin(), order.end(), random);
      for (int32_t i = 0; i < n; ++i) {
        const int32_t a = order[static_cast<size_t>(i)];
        const int32_t b = order[static_cast<size_t>((i + 1) % n)];
        edges.emplace_back(a, b);
        links.insert(std::minmax(a, b));
      }
    }
    if (links.size() == edges.size()) {
      // Dialled in random order, so the announcements start all over the graph.
      std::shuffle(edges.begin(), edges.end(), random);
      return edges;
    }
  }
}

int32_t Diameter(int32_t n, const std::vector<Edge>& edges) {
  std::vector<std::vector<int32_t>> next(static_cast<size_t>(n));
  for (auto [a, b] : edges) {
    next[static_cast<size_t>(a)].push_back(b);
    next[static_cast<size_t>(b)].push_back(a);
  }
  int32_t diameter = 0;
  std::vector<int32_t> distance;
  std::deque<int32_t> queue;
  for (int32_t from = 0; from < n; ++from) {
    distance.assign(static_cast<size_t>(n), -1);
    distance[static_cast<size_t>(from)] = 0;
    queue.assign(1, from);
    while (!queue.empty()) {
      const int32_t at = queue.front();
      queue.pop_front();
      for (int32_t to : next[static_cast<size_t>(at)]) {
        if (distance[static_cast<size_t>(to)] >= 0) continue;
        distance[static_cast<size_t>(to)] = distance[static_cast<size_t>(at)] + 1;
        diameter = std::max(diameter, distance[static_cast<size_t>(to)]);
        queue.push_back(to);
      }
    }
    if (std::count(distance.begin(), distance.end(), -1) > 0) return -1;
  }
  return diameter;
}

// Anonymous resident memory: what the process holds itself, without the
// pages of code and files it maps, which the first node brings in for all.
int64_t ResidentBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("RssAnon:")) return std::atoll(line.c_str() + 8) * 1024;
  }
  throw std::runtime_error("no RssAnon in /proc/self/status");
}

int64_t HeapBytes() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<int64_t>(info.uordblks + info.hblkhd);
}

// At 1000 nodes the process needs about 5000 descriptors, more than the
// usual soft limit of 1024.
void RaiseDescriptorLimit(int32_t nodes) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) throw std::runtime_error("getrlimit failed");
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  const int64_t need = kDescriptorsPerNode * nodes + 64;
  if (limit.rlim_max != RLIM_INFINITY && static_cast<int64_t>(limit.rlim_max) < need) {
    throw std::runtime_error(std::to_string(nodes) + " nodes need about " + std::to_string(need) +
                             " descriptors but the hard limit (ulimit -Hn) is " +
                             std::to_string(limit.rlim_max) + "; raise it to run this figure");
  }
}

// A message expected at node `to` from node `from`.
struct Expected {
  int32_t to = 0;
  std::string from;
  bool arrived = false;
};

class Scale {
 public:
  explicit Scale(int32_t n) : n_(n), random_(kSeed + static_cast<uint64_t>(n)) {}

  ScaleResult Run(int runs) {
    ScaleResult result;
    result.nodes = n_;
    const std::vector<Edge> edges = RandomGraph(n_, random_);
    result.diameter = Diameter(n_, edges);
    if (result.diameter < 0 || result.diameter >= 20) {
      throw std::runtime_error("the graph's diameter " + std::to_string(result.diameter) +
                               " is not below the default TTL 20");
    }
    const int64_t rssBefore = ResidentBytes();
    const int64_t heapBefore = HeapBytes();
    const int64_t start = NowNs();
    Build(edges);
    result.connectNs = NowNs() - start;
    result.rssPerNode = (ResidentBytes() - rssBefore) / n_;
    result.heapPerNode = (HeapBytes() - heapBefore) / n_;
    Broadcasts(runs, result);
    Directed(result);
    if (errors_ > 0) {
      throw std::runtime_error(std::to_string(errors_) + " faults reported by the nodes");
    }
    return result;
  }

 private:
  void Build(const std::vector<Edge>& edges) {
    const std::string settings = NodeSettings();
    for (int32_t i = 0; i < n_; ++i) {
      auto& node = *nodes_.emplace_back(std::make_unique<qel::cQEL>());
      node.Error = [this](std::string& text, std::string&) {
        if (++errors_ <= 3) std::fprintf(stderr, "qel scale: %s\n", text.c_str());
      };
      node.MessageReceived = [this, i](std::string& text, std::string&, std::string& from) {
        OnMessage(i, text, from);
      };
      node.Initialise("n" + std::to_string(i), 0, qel::role_Peer, "", "", settings);
      if (!node.Listen(0)) throw std::runtime_error("node " + std::to_string(i) + " cannot listen");
      ids_.push_back(node.NodeID());
    }
    for (size_t e = 0; e < edges.size(); ++e) {
      auto [a, b] = edges[e];
      const std::string address = std::string(kLoopback) + ":" +
                                  std::to_string(nodes_[static_cast<size_t>(b)]->ListenPort());
      if (!nodes_[static_cast<size_t>(a)]->Connect(address)) {
        throw std::runtime_error("node " + std::to_string(a) + " cannot connect to node " +
                                 std::to_string(b));
      }
      if ((e + 1) % kDialBatch == 0) Settle();
    }
    Settle();
  }

  // Runs the loop until no message has arrived for kQuietNs.
  void Settle() {
    int32_t last = stats_.InPacketCount();
    int64_t quietSince = NowNs();
    const int64_t limit = quietSince + kWaitNs;
    while (NowNs() - quietSince < kQuietNs) {
      if (NowNs() > limit) throw std::runtime_error("the nodes never fell quiet");
      qel::DoEvents(5);
      if (const int32_t now = stats_.InPacketCount(); now != last) {
        last = now;
        quietSince = NowNs();
      }
    }
  }

  // Runs the loop until done() or kWaitNs passed; whether done() held.
  template <typename Done>
  bool WaitFor(Done done) {
    const int64_t limit = NowNs() + kWaitNs;
    while (!done() && NowNs() < limit) qel::DoEvents(5);
    return done();
  }

  void OnMessage(int32_t at, const std::string& text, const std::string& from) {
    if (text == broadcast_) {
      if (!reached_[static_cast<size_t>(at)]) {
        reached_[static_cast<size_t>(at)] = true;
        ++reachedCount_;
        lastArrival_ = NowNs();
      }
      return;
    }
    auto found = expected_.find(text);
    if (found == expected_.end()) return;
    Expected& e = found->second;
    if (e.to != at || e.from != from || e.arrived) return;
    e.arrived = true;
    ++arrivedCount_;
    lastArrival_ = NowNs();
  }

  void Broadcasts(int runs, ScaleResult& result) {
    std::vector<double> times;
    std::vector<double> copies;
    result.reached = n_;
    std::uniform_int_distribution<int32_t> pick(0, n_ - 1);
    for (int run = 0; run < runs; ++run) {
      const int32_t origin = pick(random_);
      broadcast_ = "broadcast " + std::to_string(run);
      reached_.assign(static_cast<size_t>(n_), false);
      reachedCount_ = 0;
      const int32_t in = stats_.InPacketCount();
      const int32_t out = stats_.OutPacketCount();
      const int64_t start = NowNs();
      nodes_[static_cast<size_t>(origin)]->SendMessage(broadcast_, "BROADCAST");
      const bool all = WaitFor([&] { return reachedCount_ == n_ - 1; });
      times.push_back(static_cast<double>((all ? lastArrival_ : NowNs()) - start));
      result.reached = std::min(result.reached, reachedCount_);
      Settle();
      // The statistics count a send once however many links it went out on;
      // every copy on a link arrives at a node of this process and is
      // counted there, duplicates included.
      copies.push_back(stats_.InPacketCount() - in);
      result.transmits = stats_.OutPacketCount() - out;
    }
    const Summary summary = Summarise(times);
    result.broadcastNs = summary.median;
    result.broadcastMinNs = summary.min;
    result.broadcastMaxNs = summary.max;
    result.copies = static_cast<int64_t>(Summarise(copies).median);
  }

  // Sends kDirected messages between random pairs in waves of kWave. Before
  // each wave every destination sends its sender a message: the sender
  // learns the route it came by, and with maxRoutes 10 the routes of one
  // wave of 10 are still in every table when the wave is sent. A relay
  // passes a directed message on to every link but the one it came on, so
  // the route only picks the sender's first hop. Only the waves are timed,
  // each from its first message to its last arrival.
  void Directed(ScaleResult& result) {
    std::uniform_int_distribution<int32_t> pick(0, n_ - 1);
    std::vector<Edge> pairs;
    while (static_cast<int32_t>(pairs.size()) < kDirected) {
      const int32_t from = pick(random_);
      const int32_t to = pick(random_);
      if (from != to) pairs.emplace_back(from, to);
    }
    int64_t copies = 0;
    for (int32_t first = 0; first < kDirected; first += kWave) {
      const int32_t last = std::min(first + kWave, kDirected);
      auto send = [&](const char* kind, bool reverse) {
        expected_.clear();
        arrivedCount_ = 0;
        for (int32_t k = first; k < last; ++k) {
          auto [from, to] = pairs[static_cast<size_t>(k)];
          if (reverse) std::swap(from, to);
          std::string text = kind + std::to_string(k);
          expected_[text] = {to, ids_[static_cast<size_t>(from)]};
          nodes_[static_cast<size_t>(from)]->SendMessage(text, ids_[static_cast<size_t>(to)]);
        }
        return WaitFor([&] { return arrivedCount_ == last - first; });
      };
      send("route ", true);
      Settle();
      const int32_t in = stats_.InPacketCount();
      const int64_t start = NowNs();
      const bool all = send("directed ", false);
      result.directedNs += (all ? lastArrival_ : NowNs()) - start;
      result.arrived += arrivedCount_;
      Settle();
      copies += stats_.InPacketCount() - in;
    }
    result.directed = kDirected;
    result.directedCopies = copies / kDirected;
  }

  int32_t n_;
  std::mt19937_64 random_;
  std::vector<std::unique_ptr<qel::cQEL>> nodes_;
  std::vector<std::string> ids_;
  qel::cQELStats stats_;
  int32_t errors_ = 0;
  std::string broadcast_;
  std::vector<bool> reached_;
  int32_t reachedCount_ = 0;
  std::unordered_map<std::string, Expected> expected_;
  int32_t arrivedCount_ = 0;
  int64_t lastArrival_ = 0;
};

std::string Line(const ScaleResult& r) {
  auto field = [](const char* key, auto value) {
    return std::string(" ") + key + "=" + std::to_string(value);
  };
  return "scale" + field("diameter", r.diameter) + field("connect", r.connectNs) +
         field("bms", static_cast<int64_t>(r.broadcastNs)) +
         field("bmin", static_cast<int64_t>(r.broadcastMinNs)) +
         field("bmax", static_cast<int64_t>(r.broadcastMaxNs)) + field("reached", r.reached) +
         field("copies", r.copies) + field("transmits", r.transmits) +
         field("directed", r.directed) + field("arrived", r.arrived) + field("dns", r.directedNs) +
         field("dcopies", r.directedCopies) + field("rss", r.rssPerNode) +
         field("heap", r.heapPerNode);
}

}  // namespace

ScaleResult MeasureScale(int32_t nodes, int runs) {
  RaiseDescriptorLimit(nodes);
  UseLoopback();
  return Scale(nodes).Run(std::max(runs, 1));
}

void ScaleFigure(int32_t nodes, int runs, bool verbose) {
  const std::string figure = "scale " + std::to_string(nodes) + " nodes";
  Child child(
      figure, [=](Channel& c) { c.Send(Line(MeasureScale(nodes, runs))); }, kLifetimeSeconds);
  std::string why;
  std::optional<std::string> line = child.Expect("scale", kLifetimeSeconds * 1000, &why);
  if (!line) {
    std::printf("%s: failed (%s)\n", figure.c_str(), why.c_str());
    std::fflush(stdout);
    return;
  }
  const std::string others = std::to_string(nodes - 1);
  Summary broadcast{FieldDouble(*line, "bms"), FieldDouble(*line, "bmin"),
                    FieldDouble(*line, "bmax"), static_cast<size_t>(runs)};
  std::printf(
      "%s: broadcast reaches %s/%s in %s %s, %s messages sent; %s directed in %s (%s arrived, "
      "%s messages sent each); %lld KiB per idle node\n",
      figure.c_str(), Field(*line, "reached").c_str(), others.c_str(),
      FormatNs(broadcast.median).c_str(), FormatSpread(broadcast).c_str(),
      Field(*line, "copies").c_str(), Field(*line, "directed").c_str(),
      FormatNs(FieldDouble(*line, "dns")).c_str(), Field(*line, "arrived").c_str(),
      Field(*line, "dcopies").c_str(), static_cast<long long>(FieldInt(*line, "rss") / 1024));
  std::fflush(stdout);
  if (verbose) {
    std::fprintf(stderr,
                 "  diameter %s, graph built in %s; %s sends counted per broadcast; "
                 "heap %lld KiB per idle node\n",
                 Field(*line, "diameter").c_str(), FormatNs(FieldDouble(*line, "connect")).c_str(),
                 Field(*line, "transmits").c_str(),
                 static_cast<long long>(FieldInt(*line, "heap") / 1024));
  }
}

}  // namespace qelbench
