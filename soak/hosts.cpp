#include "hosts.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "child.h"

namespace soak {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;
using Match = std::function<bool(const json&)>;

constexpr auto kDeadline = seconds(60);
constexpr int kPort = 4000;
const std::string kSubnet = "10.213.0.";
const std::string kPrefix = "qelsoak-";
constexpr size_t kFileBytes = 1 << 20;

double Since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
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
// the run ends. The bridge lives in a namespace of its own, so nothing is
// added to the machine's own network.
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

struct TempDir {
  fs::path path;
  TempDir() {
    std::string pattern = (fs::temp_directory_path() / "qel-soak-hosts-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw SetupError("mkdtemp failed");
    path = pattern;
  }
  ~TempDir() {
    std::error_code ec;
    fs::remove_all(path, ec);
  }
};

struct Host {
  std::string name, ns, ip;
  std::unique_ptr<Child> child;
  std::vector<json> lines;
  std::string id;
};

class Hosts {
 public:
  explicit Hosts(const HostsOptions& o) : o_(o), hosts_(static_cast<size_t>(o.hosts)) {}

  int Run() {
    if (geteuid() != 0) {
      std::printf("skipped: network namespaces need root\n");
      return 0;
    }
    try {
      // The first namespace tells whether this machine allows them at all.
      switchNs_ = namespaces_.Add("sw");
    } catch (const SetupError& e) {
      std::printf("skipped: cannot make a network namespace (%s)\n", e.what());
      return 0;
    }
    std::printf(
        "soak-hosts: %d hosts in network namespaces on %s0/24, linked in a line, "
        "keepAlive=%d\n",
        o_.hosts, kSubnet.c_str(), o_.keepAlive);
    MakeNetwork();
    bool ok = StartNodes();
    if (ok) {
      ok = Check("discovery", [&] { return Discovery(); });
      ok = ok && Check("message", [&] { return Message(); });
      ok = ok && Check("file", [&] { return File(); });
      // Last: it cuts the line in two.
      ok = Check("link down", [&] { return LinkDown(); }) && ok;
    }
    ok = QuitAll() && ok;
    std::printf("%s\n", ok ? "PASS" : "FAIL");
    return ok ? 0 : 1;
  }

 private:
  void MakeNetwork() {
    Ip({"-n", switchNs_, "link", "add", "br0", "type", "bridge"});
    Ip({"-n", switchNs_, "link", "set", "br0", "up"});
    for (size_t k = 0; k < hosts_.size(); ++k) {
      Host& h = hosts_[k];
      h.name = "h" + std::to_string(k);
      h.ns = namespaces_.Add(h.name);
      h.ip = kSubnet + std::to_string(k + 1);
      const std::string port = "v" + std::to_string(k);
      Ip({"-n", switchNs_, "link", "add", port, "type", "veth", "peer", "name", "eth0", "netns",
          h.ns});
      Ip({"-n", switchNs_, "link", "set", port, "master", "br0", "up"});
      Ip({"-n", h.ns, "addr", "add", h.ip + "/24", "dev", "eth0"});
      Ip({"-n", h.ns, "link", "set", "eth0", "up"});
      Ip({"-n", h.ns, "link", "set", "lo", "up"});
    }
  }

  std::vector<Child*> Children() {
    std::vector<Child*> children;
    for (Host& h : hosts_)
      if (h.child) children.push_back(h.child.get());
    return children;
  }

  // The index of the first line of h from index from on that matches,
  // waiting until the deadline; none when it did not come or h exited.
  std::optional<size_t> WaitLine(Host& h, size_t from, const Match& match,
                                 Clock::time_point deadline) {
    for (size_t i = from;; ++i) {
      while (i == h.lines.size()) {
        if (!h.child->Running() || Clock::now() >= deadline) return std::nullopt;
        Pump(Children(), deadline);
      }
      if (match(h.lines[i])) return i;
    }
  }

  json Command(Host& h, const std::string& line, Clock::duration within = kDeadline) {
    const size_t from = h.lines.size();
    h.child->Send(line);
    const std::string word = line.substr(0, line.find(' '));
    const auto i = WaitLine(
        h, from, [&](const json& l) { return l.value("command", "") == word; },
        Clock::now() + within);
    return i ? h.lines[*i] : json();
  }

  bool Check(const char* name, const std::function<bool()>& check) {
    const bool ok = check();
    std::printf("%-10s %s\n", name, ok ? "ok" : "FAILED");
    std::fflush(stdout);
    return ok;
  }

  bool StartNodes() {
    const fs::path share = temp_.path / "share";
    fs::create_directories(share);
    std::ofstream file(share / "data.bin", std::ios::binary);
    std::mt19937 rng(1);
    for (size_t i = 0; i < kFileBytes; ++i) file.put(static_cast<char>(rng()));
    file.close();

    for (size_t k = 0; k < hosts_.size(); ++k) {
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
                                       "--set",
                                       "Timeout=2000",
                                       "--set",
                                       "keepAlive=" + std::to_string(o_.keepAlive)};
      if (k + 1 == hosts_.size()) argv.insert(argv.end(), {"--share", share.string()});
      // Without a forced address each node advertises its own interface's.
      h.child =
          std::make_unique<Child>(h.name, argv, std::vector<std::string>{"QEL_LOCAL_ADDRESS"});
      h.child->onLine = [&h](const json& line) { h.lines.push_back(line); };
    }
    const auto deadline = Clock::now() + kDeadline;
    bool ok = true;
    for (Host& h : hosts_) {
      const auto ready = WaitLine(
          h, 0, [](const json& l) { return l.value("event", "") == "Ready"; }, deadline);
      if (!ready) {
        std::printf("start      FAILED: %s did not start: %s%s\n", h.name.c_str(),
                    h.child->Fault().c_str(), h.child->ErrorTail().c_str());
        return false;
      }
      h.id = h.lines[*ready].value("ID", "");
      const std::string address = h.lines[*ready].value("Address", "");
      if (address != h.ip + ":" + std::to_string(kPort)) {
        std::printf("start      FAILED: %s advertises %s, not its own %s\n", h.name.c_str(),
                    address.c_str(), h.ip.c_str());
        ok = false;
      }
    }
    // Each node keeps a link to the next one only.
    for (size_t k = 0; k + 1 < hosts_.size(); ++k) {
      const json r = Command(
          hosts_[k], "connect " + hosts_[k + 1].ip + ":" + std::to_string(kPort) + " maintain");
      if (!r.value("ok", false)) {
        std::printf("start      FAILED: %s cannot reach %s: %s\n", hosts_[k].name.c_str(),
                    hosts_[k + 1].name.c_str(), r.dump().c_str());
        ok = false;
      }
    }
    return ok;
  }

  // The first node lists every other one, each at its own namespace's address.
  bool Discovery() {
    const auto start = Clock::now();
    Host& first = hosts_.front();
    std::string missing;
    while (Clock::now() - start < kDeadline) {
      const json r = Command(first, "nodes");
      missing.clear();
      for (size_t k = 1; k < hosts_.size(); ++k) {
        bool found = false;
        for (const json& record : r.value("value", json::array())) {
          found =
              found || (record.value("ID", "") == hosts_[k].id &&
                        record.value("Address", "") == hosts_[k].ip + ":" + std::to_string(kPort));
        }
        if (!found) missing += " " + hosts_[k].name;
      }
      if (missing.empty()) {
        std::printf("  %s lists the %zu others at their own addresses (%.1f s)\n",
                    first.name.c_str(), hosts_.size() - 1, Since(start));
        return true;
      }
    }
    std::printf("  %s does not list%s at its address\n", first.name.c_str(), missing.c_str());
    return false;
  }

  bool Message() {
    Host &first = hosts_.front(), &last = hosts_.back();
    const std::string body = "across " + std::to_string(hosts_.size() - 1) + " hops";
    const size_t from = last.lines.size();
    const auto start = Clock::now();
    Command(first, "send " + last.id + " " + body);
    const auto got = WaitLine(
        last, from,
        [&](const json& l) {
          return l.value("event", "") == "MessageReceived" && l.value("strMessage", "") == body;
        },
        start + kDeadline);
    if (got)
      std::printf("  %s -> %s %s (%.2f s)\n", first.name.c_str(), last.name.c_str(), body.c_str(),
                  Since(start));
    return got.has_value();
  }

  bool File() {
    Host &first = hosts_.front(), &last = hosts_.back();
    const fs::path fetched = temp_.path / "fetched.bin";
    const json r = Command(first, "get " + last.id + " /data.bin " + fetched.string() + " verify");
    const json value = r.value("value", json::object());
    std::error_code ec;
    const bool ok = r.value("ok", false) && value.is_object() &&
                    value.value("FileStatus", 0) == 1 && fs::file_size(fetched, ec) == kFileBytes;
    if (ok) {
      std::printf("  %zu bytes %s -> %s, MD5 verified (%.2f s)\n", kFileBytes, last.name.c_str(),
                  first.name.c_str(), value.value("seconds", 0.0));
    } else {
      std::printf("  %s\n", r.dump().c_str());
    }
    return ok;
  }

  // A host whose link goes down is closed by both neighbours once keepalive
  // gives up on it, without any traffic of their own.
  bool LinkDown() {
    const size_t middle = hosts_.size() / 2;
    const double bound = 2.0 * o_.keepAlive + 3;
    std::vector<size_t> from;
    for (Host& h : hosts_) from.push_back(h.lines.size());
    const auto start = Clock::now();
    Ip({"-n", hosts_[middle].ns, "link", "set", "eth0", "down"});
    bool ok = true;
    for (size_t k : {middle - 1, middle + 1}) {
      Host& neighbour = hosts_[k];
      const std::string peer = hosts_[middle].ip;
      const auto closed = WaitLine(
          neighbour, from[k],
          [&](const json& l) {
            return l.value("event", "") == "ConnectionClosed" &&
                   l.value("SourceIP", "").starts_with(peer);
          },
          start + std::chrono::duration_cast<Clock::duration>(
                      std::chrono::duration<double>(bound + 10)));
      const double took = Since(start);
      if (closed && took <= bound) {
        std::printf("  %s closed its link to %s after %.1f s (bound %.0f s)\n",
                    neighbour.name.c_str(), hosts_[middle].name.c_str(), took, bound);
      } else {
        std::printf("  %s %s its link to %s%s (bound %.0f s)\n", neighbour.name.c_str(),
                    closed ? "closed" : "did not close", hosts_[middle].name.c_str(),
                    closed ? (" only after " + std::to_string(took) + " s").c_str() : "", bound);
        ok = false;
      }
    }
    return ok;
  }

  bool QuitAll() {
    for (Host& h : hosts_)
      if (h.child) h.child->Quit();
    const auto deadline = Clock::now() + kDeadline;
    for (;;) {
      for (Host& h : hosts_) {
        if (h.child && !h.child->Running()) exited_.push_back(std::move(h.child));
      }
      if (Children().empty() || Clock::now() >= deadline) break;
      Pump(Children(), deadline);
    }
    bool ok = Children().empty();
    if (!ok) std::printf("crashes    FAILED: nodes still running after quit\n");
    for (const auto& c : exited_) {
      if (c->Fault().empty()) continue;
      std::printf("crashes    FAILED: %s: %s\n%s\n", c->Name().c_str(), c->Fault().c_str(),
                  c->ErrorTail().c_str());
      ok = false;
    }
    if (ok) std::printf("crashes    none\n");
    return ok;
  }

  const HostsOptions& o_;
  Namespaces namespaces_;
  TempDir temp_;
  std::string switchNs_;
  std::vector<Host> hosts_;  // after namespaces_: their nodes go first
  std::vector<std::unique_ptr<Child>> exited_;
};

}  // namespace

int RunHosts(const HostsOptions& options) {
  if (options.hosts < 3) {
    std::fprintf(stderr, "soak-hosts: at least 3 hosts\n");
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
