#include "hosts.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <numeric>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "child.h"

namespace soak {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;
using TimePoint = Clock::time_point;

constexpr auto kStartDeadline = seconds(120);
constexpr auto kQuitDeadline = seconds(60);
constexpr auto kDrainDeadline = seconds(60);
constexpr auto kProbeEvery = milliseconds(250);
constexpr auto kSampleEvery = milliseconds(500);
constexpr auto kProgressEvery = seconds(10);
// A broadcast sent this close to a node's death is not expected there.
constexpr auto kBroadcastGrace = seconds(2);
constexpr int kPort = 4000;
constexpr int kConfirmTimeoutMs = 1000, kConfirmRetry = 5;
const std::string kPrefix = "qelsoak-";
constexpr TimePoint kNever = TimePoint::max();

double Secs(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}
Clock::duration Dur(double seconds) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

struct SetupError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void Ip(const std::vector<std::string>& args) {
  std::vector<std::string> argv{"ip"};
  argv.insert(argv.end(), args.begin(), args.end());
  const RunResult r = Run(argv);
  if (r.status != 0) {
    std::string line;
    for (const auto& a : argv) line += a + " ";
    throw SetupError(line + "failed: " + r.output);
  }
}

// The namespaces of one run, named after the driver's process so that runs
// side by side do not meet, and deleted (with the links inside them) however
// the run ends, so nothing is left in the machine's own network.
class Namespaces {
 public:
  Namespaces() : prefix_(kPrefix + std::to_string(getpid()) + "-") { RemoveStale(); }
  ~Namespaces() {
    for (auto it = made_.rbegin(); it != made_.rend(); ++it) Run({"ip", "netns", "delete", *it});
  }

  std::string Add(const std::string& suffix) {
    const std::string name = prefix_ + suffix;
    Ip({"netns", "add", name});
    made_.push_back(name);
    return name;
  }

 private:
  // Namespaces left by a driver that was killed outright.
  static void RemoveStale() {
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/run/netns", ec)) {
      const std::string name = entry.path().filename();
      if (!name.starts_with(kPrefix)) continue;
      const pid_t owner = std::atoi(name.c_str() + kPrefix.size());
      if (owner > 0 && kill(owner, 0) != 0 && errno == ESRCH) Run({"ip", "netns", "delete", name});
    }
  }

  std::string prefix_;
  std::vector<std::string> made_;
};

// A random ring makes the graph connected, and keeps it so without any one
// link or any one node; chords between nodes still short of three links then
// bring every degree to 3 or 4.
std::vector<std::pair<size_t, size_t>> RandomGraph(size_t n, std::mt19937& rng) {
  std::vector<size_t> order(n), degree(n);
  std::iota(order.begin(), order.end(), 0);
  std::shuffle(order.begin(), order.end(), rng);
  std::set<std::pair<size_t, size_t>> edges;
  auto add = [&](size_t a, size_t b) {
    if (a == b || !edges.insert({std::min(a, b), std::max(a, b)}).second) return;
    ++degree[a];
    ++degree[b];
  };
  for (size_t i = 0; i < n; ++i) add(order[i], order[(i + 1) % n]);
  for (size_t most : {3, 4}) {
    for (size_t v : order) {
      if (degree[v] >= 3) continue;
      std::vector<size_t> candidates;
      for (size_t u = 0; u < n; ++u) {
        if (u != v && degree[u] < most && !edges.contains({std::min(u, v), std::max(u, v)}))
          candidates.push_back(u);
      }
      if (!candidates.empty())
        add(v, candidates[std::uniform_int_distribution<size_t>(0, candidates.size() - 1)(rng)]);
    }
  }
  return {edges.begin(), edges.end()};
}

struct Edge {
  size_t a, b;  // a dials b
  std::string devA, devB, ipA, ipB;
};

// One process of a host, from its Ready to its death.
struct Life {
  size_t host;
  TimePoint joinedAt = kNever;  // every link of the host up
  TimePoint endAt = kNever;
};

struct Host {
  std::string name, ns;
  std::vector<size_t> edges;
  std::unique_ptr<Child> child;
  std::string id;
  bool ready = false, talker = false;
  int links = 0;  // open, by its events
  size_t life = 0;
  TimePoint restartAt = kNever;
  long peakKiB = 0, endKiB = 0;
};

struct Pair {
  size_t from, to;  // hosts
  size_t sent = 0, delivered = 0, extra = 0;
  std::vector<uint8_t> copies = {};  // by message number
};

struct Broadcast {
  size_t from;
  TimePoint sentAt;
};

struct Fault {
  bool kill = false;
  size_t u = 0, v = 0;  // a link's ends, or the victim and a neighbour of it
  size_t edge = 0;
  TimePoint start, repairAt, repairedAt = kNever;
  TimePoint arrived[2] = {kNever, kNever};  // u -> v, v -> u
  TimePoint nextProbe;
  int probes = 0;
};

struct Crash {
  std::string name, what, tail;
};

template <typename T>
T Median(std::vector<T> v) {
  if (v.empty()) return T{};
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

class Hosts {
 public:
  explicit Hosts(const HostsOptions& o) : o_(o), rng_(o.seed), hosts_(size_t(o.hosts)) {}

  int Run() {
    if (geteuid() != 0) {
      std::printf("skipped: network namespaces need root\n");
      return 0;
    }
    try {
      hosts_[0].ns = namespaces_.Add("h0");  // tells whether this machine allows them at all
    } catch (const SetupError& e) {
      std::printf("skipped: cannot make a network namespace (%s)\n", e.what());
      return 0;
    }
    MakeNetwork();
    std::printf(
        "soak-hosts: %zu hosts in network namespaces, %zu links (degree %zu-%zu), seed %u; "
        "%zu talkers (%s), %d directed messages/s each, a broadcast every %d ms each; "
        "%.0f s of faults, each %d ms down; keepAlive=%d, secure %s\n",
        hosts_.size(), edges_.size(), Degree().first, Degree().second, o_.seed, talkers_.size(),
        TalkerNames().c_str(), o_.rate, o_.broadcastEveryMs, o_.seconds, o_.downMs, o_.keepAlive,
        o_.secure.c_str());
    std::fflush(stdout);
    bool started = StartAll();
    if (started) {
      Traffic();
      Drain();
    }
    QuitAll();
    return Report(started);
  }

 private:
  std::pair<size_t, size_t> Degree() const {
    const auto [low, high] = std::minmax_element(
        hosts_.begin(), hosts_.end(),
        [](const Host& a, const Host& b) { return a.edges.size() < b.edges.size(); });
    return {low->edges.size(), high->edges.size()};
  }

  std::string TalkerNames() const {
    std::string names;
    for (size_t t : talkers_) names += (names.empty() ? "" : " ") + hosts_[t].name;
    return names;
  }

  // Each link of the graph is a veth pair of its own on a /30, so that one
  // link can go down while its ends keep the others.
  void MakeNetwork() {
    for (size_t k = 0; k < hosts_.size(); ++k) {
      Host& h = hosts_[k];
      h.name = "h" + std::to_string(k);
      if (k > 0) h.ns = namespaces_.Add(h.name);
      Ip({"-n", h.ns, "link", "set", "lo", "up"});
    }
    for (const auto& [a, b] : RandomGraph(hosts_.size(), rng_)) {
      const size_t e = edges_.size();
      const std::string net = "10.213." + std::to_string(e / 64) + ".";
      Edge edge{a,
                b,
                "to" + std::to_string(b),
                "to" + std::to_string(a),
                net + std::to_string(e % 64 * 4 + 1),
                net + std::to_string(e % 64 * 4 + 2)};
      Ip({"-n", hosts_[a].ns, "link", "add", edge.devA, "type", "veth", "peer", "name", edge.devB,
          "netns", hosts_[b].ns});
      for (const auto& [ns, dev, ip] : {std::tuple{hosts_[a].ns, edge.devA, edge.ipA},
                                        std::tuple{hosts_[b].ns, edge.devB, edge.ipB}}) {
        Ip({"-n", ns, "addr", "add", ip + "/30", "dev", dev});
        Ip({"-n", ns, "link", "set", dev, "up"});
      }
      hosts_[a].edges.push_back(e);
      hosts_[b].edges.push_back(e);
      edges_.push_back(edge);
    }
    std::vector<size_t> order(hosts_.size());
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), rng_);
    talkers_.assign(order.begin(), order.begin() + std::min<long>(o_.talkers, long(order.size())));
    std::sort(talkers_.begin(), talkers_.end());
    for (size_t t : talkers_) hosts_[t].talker = true;
    for (size_t i : talkers_)
      for (size_t j : talkers_)
        if (i != j) pairs_.push_back({.from = i, .to = j});
  }

  void Start(size_t k) {
    Host& h = hosts_[k];
    std::vector<std::string> argv = {"ip",
                                     "netns",
                                     "exec",
                                     h.ns,
                                     o_.qel,
                                     "node",
                                     "--json",
                                     "--name",
                                     h.name,
                                     "--port",
                                     std::to_string(kPort),
                                     "--secure",
                                     o_.secure};
    const std::vector<std::string> settings = {
        "Timeout=2000", "keepAlive=" + std::to_string(o_.keepAlive), "confirmMode=True",
        "confirmTimeout=" + std::to_string(kConfirmTimeoutMs),
        "confirmRetry=" + std::to_string(kConfirmRetry)};
    for (const std::string& setting : settings) argv.insert(argv.end(), {"--set", setting});
    h.child = std::make_unique<Child>(h.name, argv, std::vector<std::string>{"QEL_LOCAL_ADDRESS"});
    h.ready = false;
    h.links = 0;
    h.restartAt = kNever;
    h.child->onLine = [this, k](const json& line) { OnLine(k, line); };
    if (fault_ && fault_->kill && fault_->u == k) fault_->repairedAt = Clock::now();
  }

  void OnLine(size_t k, const json& line) {
    Host& h = hosts_[k];
    const std::string event = line.value("event", "");
    const auto now = Clock::now();
    if (event == "Ready") {
      h.id = line.value("ID", "");
      h.ready = true;
      h.life = lives_.size();
      lives_.push_back({k});
      // Without a forced address a node advertises one of its own interfaces'.
      const std::string address = line.value("Address", "");
      if (std::none_of(h.edges.begin(), h.edges.end(), [&](size_t e) {
            const std::string& ip = edges_[e].a == k ? edges_[e].ipA : edges_[e].ipB;
            return address == ip + ":" + std::to_string(kPort);
          }))
        foreignAddresses_.push_back(h.name + " advertises " + address);
      if (linking_) Dial(k);
    } else if (event == "ConnectionEstab" || event == "ConnectionClosed") {
      h.links += event == "ConnectionEstab" ? 1 : -1;
      if (h.ready && h.links >= int(h.edges.size()) && lives_[h.life].joinedAt == kNever)
        lives_[h.life].joinedAt = now;
    } else if (event == "MessageReceived") {
      OnMessage(k, line.value("strMessage", ""), now);
    } else if (event == "Error" && h.talker) {
      if (line.value("strMessage", "").find("could not be delivered") != std::string::npos)
        ++undeliverable_;
    } else if (line.value("command", "") == "send" && h.talker && !line.value("ok", false)) {
      ++refused_;
    }
  }

  void OnMessage(size_t k, const std::string& body, TimePoint now) {
    size_t a = 0, b = 0, n = 0;
    if (std::sscanf(body.c_str(), "d-%zu-%zu", &a, &n) == 2 && a < pairs_.size() &&
        n < pairs_[a].copies.size() && pairs_[a].to == k) {
      Pair& p = pairs_[a];
      if (p.copies[n]++ == 0) {
        ++p.delivered;
      } else {
        ++p.extra;
      }
    } else if (std::sscanf(body.c_str(), "b-%zu", &n) == 1 && n < broadcasts_.size()) {
      ++broadcastCopies_[{n, hosts_[k].life}];
    } else if (std::sscanf(body.c_str(), "p-%zu-%zu-%zu", &a, &b, &n) == 3) {
      if (fault_ && a == size_t(faults_) && b < 2 && k == (b == 0 ? fault_->v : fault_->u) &&
          fault_->arrived[b] == kNever)
        fault_->arrived[b] = now;
    } else {
      ++foreign_;
    }
  }

  std::vector<Child*> Children() {
    std::vector<Child*> children;
    for (Host& h : hosts_)
      if (h.child) children.push_back(h.child.get());
    return children;
  }

  // Waits for output until the deadline, then deals with the processes that
  // exited and restarts those whose time has come.
  void Step(TimePoint deadline) {
    for (const Host& h : hosts_)
      if (!h.child) deadline = std::min(deadline, h.restartAt);
    Pump(Children(), std::max(deadline, Clock::now()));
    const auto now = Clock::now();
    for (size_t k = 0; k < hosts_.size(); ++k) {
      Host& h = hosts_[k];
      if (h.child && !h.child->Running()) {
        h.peakKiB = std::max(h.peakKiB, h.child->PeakKiB());
        if (h.ready) lives_[h.life].endAt = now;
        if (!h.child->Fault().empty()) {
          crashes_.push_back({h.name, h.child->Fault(), h.child->ErrorTail()});
          std::fprintf(stderr, "soak-hosts: %s crashed: %s\n%s\n", h.name.c_str(),
                       h.child->Fault().c_str(), h.child->ErrorTail().c_str());
          if (!quitting_) h.restartAt = now + milliseconds(o_.downMs);
        }
        h.child.reset();
        h.ready = false;
      }
      if (!h.child && !quitting_ && now >= h.restartAt) Start(k);
    }
  }

  template <typename Done>
  bool StepUntil(Done done, TimePoint deadline) {
    while (!done()) {
      if (Clock::now() >= deadline) return false;
      Step(deadline);
    }
    return true;
  }

  // The lower-numbered end of each link keeps it up.
  void Dial(size_t k) {
    for (size_t e : hosts_[k].edges) {
      if (edges_[e].a == k)
        hosts_[k].child->Send("connect " + edges_[e].ipB + ":" + std::to_string(kPort) +
                              " maintain");
    }
  }

  bool StartAll() {
    const auto start = Clock::now();
    for (size_t k = 0; k < hosts_.size(); ++k) Start(k);
    // Dialled before its peer listens, a maintained link would wait for the
    // next redial, seconds later.
    StepUntil(
        [&] {
          return std::all_of(hosts_.begin(), hosts_.end(), [](const Host& h) { return h.ready; });
        },
        start + kStartDeadline);
    linking_ = true;
    for (size_t k = 0; k < hosts_.size(); ++k)
      if (hosts_[k].ready) Dial(k);
    const bool up = StepUntil(
        [&] {
          return std::all_of(hosts_.begin(), hosts_.end(), [&](const Host& h) {
            return h.ready && lives_[h.life].joinedAt != kNever;
          });
        },
        start + kStartDeadline);
    if (!up) {
      for (const Host& h : hosts_) {
        if (!h.ready || lives_[h.life].joinedAt == kNever)
          std::printf("start      FAILED: %s %s (%d of %zu links)\n", h.name.c_str(),
                      h.ready ? "is not linked" : "did not start", h.links, h.edges.size());
      }
      return false;
    }
    std::printf("start      every node up and linked (%.1f s)\n", Secs(Clock::now() - start));
    std::fflush(stdout);
    return true;
  }

  // The next fault takes turns: a link down, then a node killed, each chosen
  // at random; talkers are never killed, so that their traffic can be counted.
  void StartFault(TimePoint now) {
    Fault f;
    f.kill = faults_ % 2 == 1;
    f.start = now;
    f.repairAt = now + milliseconds(o_.downMs);
    f.nextProbe = now;
    if (f.kill) {
      std::vector<size_t> victims;
      for (size_t k = 0; k < hosts_.size(); ++k)
        if (!hosts_[k].talker && hosts_[k].ready) victims.push_back(k);
      if (victims.empty()) return;
      f.u = victims[std::uniform_int_distribution<size_t>(0, victims.size() - 1)(rng_)];
      const Edge& e = edges_[hosts_[f.u].edges.front()];
      f.v = e.a == f.u ? e.b : e.a;
      Host& victim = hosts_[f.u];
      victim.child->SamplePeakKiB();
      victim.child->Kill();
      victim.restartAt = f.repairAt;
    } else {
      f.edge = std::uniform_int_distribution<size_t>(0, edges_.size() - 1)(rng_);
      const Edge& e = edges_[f.edge];
      f.u = e.a;
      f.v = e.b;
      Ip({"-n", hosts_[e.a].ns, "link", "set", e.devA, "down"});
    }
    fault_ = f;
  }

  std::string FaultName(const Fault& f) const {
    return f.kill ? "kill " + hosts_[f.u].name
                  : "link " + hosts_[f.u].name + "-" + hosts_[f.v].name + " down";
  }

  // Probes each way between the fault's two nodes until both arrive; a fault
  // ends once both did after its repair, or when the bound passed.
  void StepFault(TimePoint now) {
    Fault& f = *fault_;
    if (!f.kill && f.repairedAt == kNever && now >= f.repairAt) {
      const Edge& e = edges_[f.edge];
      Ip({"-n", hosts_[e.a].ns, "link", "set", e.devA, "up"});
      f.repairedAt = now;
    }
    const bool both = f.arrived[0] != kNever && f.arrived[1] != kNever;
    const bool late = f.repairedAt != kNever && now > f.repairedAt + Dur(o_.reconvergeSeconds);
    if ((both && f.repairedAt != kNever) || late) {
      const TimePoint back = std::max(f.arrived[0], f.arrived[1]);
      std::printf("  %5.1f s  %-18s %s<->%s ", Secs(f.start - trafficStart_), FaultName(f).c_str(),
                  hosts_[f.u].name.c_str(), hosts_[f.v].name.c_str());
      if (both) {
        const double fromFault = Secs(back - f.start), fromRepair = Secs(back - f.repairedAt);
        if (f.kill) {
          killBack_.push_back(fromRepair);
        } else {
          linkBack_.push_back(fromFault);
          aroundLinks_ += fromRepair < 0;
        }
        if (fromRepair < 0) {
          std::printf("again after %.2f s, before the repair\n", fromFault);
        } else {
          std::printf("again after %.2f s, %.2f s after the %s\n", fromFault, fromRepair,
                      f.kill ? "restart" : "link came up");
        }
      } else {
        std::printf("NOT again %.0f s after the repair (%s)\n", o_.reconvergeSeconds,
                    f.arrived[0] == kNever ? "not even one way" : "one way only");
        ++unconverged_;
      }
      std::fflush(stdout);
      (f.kill ? kills_ : linkFaults_)++;
      ++faults_;
      fault_.reset();
      nextFault_ = now + milliseconds(o_.gapMs);
      return;
    }
    if (now < f.nextProbe) return;
    f.nextProbe = now + kProbeEvery;
    for (size_t d = 0; d < 2; ++d) {
      Host& from = hosts_[d == 0 ? f.u : f.v];
      const Host& to = hosts_[d == 0 ? f.v : f.u];
      if (f.arrived[d] != kNever || !from.ready || !to.ready) continue;
      from.child->Send("send " + to.id + " p-" + std::to_string(faults_) + "-" + std::to_string(d) +
                       "-" + std::to_string(f.probes++));
    }
  }

  void SendDirected() {
    const size_t t = nextTalker_++ % talkers_.size();
    // Each talker takes its destinations in turn.
    const size_t per = talkers_.size() - 1;
    Pair& p = pairs_[t * per + (turn_[t]++ % per)];
    Host& from = hosts_[p.from];
    if (!from.ready) return;
    from.child->Send("send " + hosts_[p.to].id + " d-" + std::to_string(&p - pairs_.data()) + "-" +
                     std::to_string(p.copies.size()));
    p.copies.push_back(0);
    ++p.sent;
  }

  void SendBroadcast(TimePoint now) {
    const size_t t = talkers_[broadcasts_.size() % talkers_.size()];
    if (!hosts_[t].ready) return;
    hosts_[t].child->Send("send BROADCAST b-" + std::to_string(broadcasts_.size()));
    broadcasts_.push_back({t, now});
  }

  void Sample() {
    for (Host& h : hosts_)
      if (h.child) h.child->SamplePeakKiB();
  }

  void Traffic() {
    trafficStart_ = Clock::now();
    const auto end = trafficStart_ + Dur(o_.seconds);
    const auto sendEvery = Dur(1.0 / (o_.rate * double(talkers_.size())));
    const auto broadcastEvery = milliseconds(o_.broadcastEveryMs) / talkers_.size();
    turn_.assign(talkers_.size(), 0);
    auto nextSend = trafficStart_, nextBroadcast = trafficStart_;
    auto nextSample = trafficStart_, nextProgress = trafficStart_ + kProgressEvery;
    nextFault_ = trafficStart_ + seconds(2);
    std::printf("faults (time from the start of traffic; reconverged: both ways again)\n");
    for (;;) {
      const auto now = Clock::now();
      if (now >= end && !fault_) break;
      // A driver held up does not make up for it with a burst.
      if (now - nextSend > seconds(1)) nextSend = now;
      for (; nextSend <= now; nextSend += sendEvery) SendDirected();
      for (; nextBroadcast <= now; nextBroadcast += broadcastEvery) SendBroadcast(now);
      if (!fault_ && now >= nextFault_ && now < end) StartFault(now);
      if (fault_) StepFault(now);
      if (now >= nextSample) {
        Sample();
        nextSample += kSampleEvery;
      }
      if (now >= nextProgress) {
        std::vector<long> rss;
        for (const Host& h : hosts_)
          if (h.child) rss.push_back(h.child->RssKiB());
        std::printf(
            "  %5.0f s  directed %zu sent, %zu delivered; %zu broadcasts; %d faults; RSS median "
            "%.1f MiB\n",
            Secs(now - trafficStart_), Sent(), Delivered(), broadcasts_.size(), faults_,
            Median(rss) / 1024.0);
        std::fflush(stdout);
        nextProgress += kProgressEvery;
      }
      TimePoint wake = std::min({nextSend, nextBroadcast, nextSample, nextProgress, end});
      if (fault_) {
        wake = std::min({wake, fault_->nextProbe, fault_->repairAt,
                         fault_->repairedAt + Dur(o_.reconvergeSeconds)});
      } else if (nextFault_ < end) {
        wake = std::min(wake, nextFault_);
      }
      Step(wake);
    }
    trafficSeconds_ = Secs(Clock::now() - trafficStart_);
  }

  size_t Sent() const {
    size_t n = 0;
    for (const Pair& p : pairs_) n += p.sent;
    return n;
  }
  size_t Delivered() const {
    size_t n = 0;
    for (const Pair& p : pairs_) n += p.delivered;
    return n;
  }

  // Every directed message arrived or was given up by its sender; then as
  // long as a resend could still come, so that a late copy is counted.
  void Drain() {
    const auto start = Clock::now();
    StepUntil([&] { return Delivered() + undeliverable_ + refused_ >= Sent(); },
              start + kDrainDeadline);
    const auto quiet = Clock::now() + milliseconds((kConfirmRetry + 1) * kConfirmTimeoutMs);
    StepUntil([&] { return Clock::now() >= quiet; }, quiet);
    drainSeconds_ = Secs(Clock::now() - start);
  }

  void QuitAll() {
    Sample();
    for (Host& h : hosts_) {
      if (!h.child) continue;
      h.endKiB = h.child->RssKiB();
      h.child->Quit();
    }
    quitting_ = true;
    const bool exited = StepUntil([&] { return Children().empty(); }, Clock::now() + kQuitDeadline);
    if (exited) return;
    for (Host& h : hosts_) {
      if (!h.child) continue;
      crashes_.push_back({h.name, "still running after quit", h.child->ErrorTail()});
      h.peakKiB = std::max(h.peakKiB, h.child->PeakKiB());
      h.child.reset();
    }
  }

  int Report(bool started) {
    std::vector<std::string> failures;
    if (!started) failures.push_back("the nodes did not all come up");
    if (started) ReportTraffic(failures);
    for (const std::string& a : foreignAddresses_)
      std::printf("address    %s, not its own\n", a.c_str());
    if (!foreignAddresses_.empty()) failures.push_back("nodes advertise addresses not their own");
    if (!crashes_.empty()) failures.push_back("crashes");
    std::printf("crashes    %zu\n", crashes_.size());
    for (const Crash& c : crashes_)
      std::printf("  %s: %s\n%s\n", c.name.c_str(), c.what.c_str(), c.tail.c_str());
    std::string verdict = "PASS";
    for (size_t i = 0; i < failures.size(); ++i)
      verdict = (i ? verdict + ", " : "FAIL: ") + failures[i];
    std::printf("%s (seed %u)\n", verdict.c_str(), o_.seed);
    return failures.empty() ? 0 : 1;
  }

  void ReportTraffic(std::vector<std::string>& failures) {
    const size_t sent = Sent(), delivered = Delivered();
    size_t extra = 0;
    for (const Pair& p : pairs_) extra += p.extra;
    std::printf(
        "directed   %zu sent in %.0f s, %zu delivered (%.2f %%), %zu lost, %zu "
        "undeliverable, %zu refused, %zu duplicates\n",
        sent, trafficSeconds_, delivered, sent ? 100.0 * delivered / sent : 0.0, sent - delivered,
        undeliverable_, refused_, extra);
    std::string line;
    for (size_t i = 0; i < pairs_.size(); ++i) {
      const Pair& p = pairs_[i];
      char cell[64];
      std::snprintf(cell, sizeof cell, "  %s->%s %zu/%zu", hosts_[p.from].name.c_str(),
                    hosts_[p.to].name.c_str(), p.delivered, p.sent);
      line += cell;
      if (i % 4 == 3 || i + 1 == pairs_.size()) {
        std::printf("%s\n", line.c_str());
        line.clear();
      }
    }

    // A broadcast is expected at every process that was linked when it was
    // sent and lived a little longer.
    size_t expected = 0, reached = 0, bextra = 0;
    for (size_t n = 0; n < broadcasts_.size(); ++n) {
      const Broadcast& b = broadcasts_[n];
      for (size_t l = 0; l < lives_.size(); ++l) {
        const Life& life = lives_[l];
        const auto it = broadcastCopies_.find({n, l});
        const int copies = it == broadcastCopies_.end() ? 0 : it->second;
        bextra += copies > 1 ? copies - 1 : 0;
        if (life.host == b.from || life.joinedAt > b.sentAt ||
            (life.endAt != kNever && life.endAt < b.sentAt + kBroadcastGrace))
          continue;
        ++expected;
        reached += copies > 0;
      }
    }
    const double reach = expected ? 100.0 * reached / expected : 0;
    std::printf(
        "broadcast  %zu sent, reached %.2f %% of the live nodes (%zu of %zu), %zu "
        "duplicates\n",
        broadcasts_.size(), reach, reached, expected, bextra);
    if (foreign_) std::printf("foreign    %zu messages no one sent\n", foreign_);

    auto spread = [](const std::vector<double>& v) {
      if (v.empty()) return std::string("-");
      char text[64];
      std::snprintf(text, sizeof text, "median %.2f s, max %.2f s", Median(v),
                    *std::max_element(v.begin(), v.end()));
      return std::string(text);
    };
    std::printf(
        "faults     %d: %d links down, %d kills; %d pairs not talking again within "
        "%.0f s of the repair\n",
        faults_, linkFaults_, kills_, unconverged_, o_.reconvergeSeconds);
    std::printf(
        "  link down: both ways again %s after the fault (%d of %zu before the link came "
        "up)\n",
        spread(linkBack_).c_str(), aroundLinks_, linkBack_.size());
    std::printf("  kill:      both ways again %s after the restart\n", spread(killBack_).c_str());

    std::vector<long> peaks, ends;
    const Host* biggest = &hosts_.front();
    line.clear();
    for (size_t k = 0; k < hosts_.size(); ++k) {
      const Host& h = hosts_[k];
      peaks.push_back(h.peakKiB);
      ends.push_back(h.endKiB);
      if (h.peakKiB > biggest->peakKiB) biggest = &h;
      char cell[64];
      std::snprintf(cell, sizeof cell, "  %-3s %5.1f/%5.1f", h.name.c_str(), h.peakKiB / 1024.0,
                    h.endKiB / 1024.0);
      line += cell;
      if (k % 6 == 5 || k + 1 == hosts_.size()) {
        std::printf("%s\n", line.c_str());
        line.clear();
      }
    }
    std::printf(
        "memory     RSS per node, MiB (peak/end above): peak median %.1f, max %.1f (%s)%s; "
        "end median %.1f\n",
        Median(peaks) / 1024.0, biggest->peakKiB / 1024.0, biggest->name.c_str(),
        o_.maxRssMiB > 0 ? (", bound " + std::to_string(o_.maxRssMiB)).c_str() : "",
        Median(ends) / 1024.0);
    std::printf("drain      %.1f s\n", drainSeconds_);

    if (sent == 0) failures.push_back("nothing sent");
    if (delivered < sent) failures.push_back("directed messages lost");
    if (extra + bextra > 0) failures.push_back("duplicates delivered");
    if (reach < 99.0) failures.push_back("broadcasts reached under 99 % of the live nodes");
    if (unconverged_ > 0) failures.push_back("a pair did not reconverge within the bound");
    if (o_.maxRssMiB > 0 && biggest->peakKiB > o_.maxRssMiB * 1024)
      failures.push_back("memory above the bound");
  }

  const HostsOptions& o_;
  std::mt19937 rng_;
  Namespaces namespaces_;
  std::vector<Edge> edges_;
  std::vector<Host> hosts_;  // after namespaces_: their nodes go first
  std::vector<size_t> talkers_;
  std::vector<Life> lives_;
  std::vector<Pair> pairs_;  // by sender, each sender's in turn
  std::vector<size_t> turn_;
  size_t nextTalker_ = 0;
  std::vector<Broadcast> broadcasts_;
  std::map<std::pair<size_t, size_t>, int> broadcastCopies_;  // (broadcast, life)
  std::optional<Fault> fault_;
  TimePoint nextFault_, trafficStart_;
  int faults_ = 0, linkFaults_ = 0, kills_ = 0, unconverged_ = 0;
  std::vector<double> linkBack_, killBack_;  // seconds, by kind of fault
  int aroundLinks_ = 0;
  size_t undeliverable_ = 0, refused_ = 0, foreign_ = 0;
  std::vector<std::string> foreignAddresses_;
  std::vector<Crash> crashes_;
  bool linking_ = false, quitting_ = false;
  double trafficSeconds_ = 0, drainSeconds_ = 0;
};

}  // namespace

int RunHosts(const HostsOptions& options) {
  if (options.hosts < 5 || options.talkers < 2 || options.talkers > options.hosts) {
    std::fprintf(stderr,
                 "soak-hosts: at least 5 hosts and 2 talkers, no more talkers than hosts\n");
    return 2;
  }
  try {
    return Hosts(options).Run();
  } catch (const SetupError& e) {
    std::printf("FAIL: %s\n", e.what());
    return 1;
  }
}

}  // namespace soak
