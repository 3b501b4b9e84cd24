#include "amplification_figure.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <qel/qel.h>

#include "harness.h"
#include "protocol/feeder.h"

namespace qelbench {
namespace {

constexpr int kRing = 5;
constexpr int kQuestions = 200;
// Nothing arrived anywhere for this long: the burst has died out.
constexpr int64_t kQuietNs = 300'000'000;
// What one burst or flood may take at most.
constexpr int64_t kWaitNs = 600'000'000'000;
constexpr unsigned kLifetimeSeconds = 1800;
// Broadcasts handed to the sending node between two turns of the loop, so
// thousands are in flight at once.
constexpr int64_t kBatch = 1000;

// The bytes and messages a burst brought back to the raw peer.
struct Burst {
  int64_t in = 0;         // bytes the peer sent
  int64_t out = 0;        // bytes it got back
  int64_t answers = 0;    // messages of the answering type
  int64_t ownCopies = 0;  // its own questions sent back to it
};

class Ring {
 public:
  Ring(int32_t dupWindow, const std::string& share) {
    qel::cSettings settings;
    settings.SaveSetting("dupWindow", dupWindow);
    const std::string text = settings.getXML();
    for (int i = 0; i < kRing; ++i) {
      auto& node = *nodes_.emplace_back(std::make_unique<qel::cQEL>());
      node.Error = [this](std::string& text, std::string&) {
        if (errors_++ == 0) firstError_ = text;
      };
      node.MessageReceived = [this, i](std::string& text, std::string&, std::string&) {
        OnMessage(i, text);
      };
      node.Initialise("n" + std::to_string(i), 0, qel::role_Peer, "", share, text);
      if (!node.Listen(0)) throw std::runtime_error("a node cannot listen");
    }
    for (int i = 0; i < kRing; ++i) {
      const std::string next =
          std::string(kLoopback) + ":" + std::to_string(nodes_[(i + 1) % kRing]->ListenPort());
      if (!nodes_[i]->Connect(next)) throw std::runtime_error("a node cannot connect");
    }
    Settle();
    // Users for SYNCUSERS to list: each node adds its own, and the updates
    // spread over the ring to nodes that know their sender, so every node
    // first asks who is there.
    for (auto& node : nodes_) node->GetNodeInfo("BROADCAST", false);
    for (int i = 0; i < kRing; ++i) {
      for (int u = 0; u < 10; ++u) {
        nodes_[i]->updateUser("user" + std::to_string(i) + "-" + std::to_string(u), "secret");
      }
    }
    Settle();
    DialRaw();
  }

  ~Ring() {
    if (raw_ >= 0) close(raw_);
  }

  // kQuestions messages of one type from the raw peer, each a BROADCAST
  // from "ASKER" with its own ID; answers go back to "ASKER".
  Burst Ask(const std::string& type, const std::string& resource, const std::string& fields,
            const std::string& answerType) {
    std::string burst;
    std::set<std::string> ids;
    for (int i = 0; i < kQuestions; ++i) {
      const std::string id = type + std::to_string(i);
      ids.insert(id);
      burst += type + " " + resource + " QEL/2.1\r\nDestination: BROADCAST\r\nSource: ASKER\r\n" +
               "TTL: 20\r\nID: " + id + "\r\n" + fields + "ReqID: " + id + "\r\n\r\n";
    }
    Burst result;
    result.in = static_cast<int64_t>(burst.size());
    got_.clear();
    const int64_t before = gotBytes_;
    SendRaw(burst);
    Settle();
    result.out = gotBytes_ - before;
    for (const auto& [gotType, id] : got_) {
      if (gotType == answerType) ++result.answers;
      if (ids.contains(id)) ++result.ownCopies;
    }
    return result;
  }

  // n broadcasts from node 0; the seconds until every other node had each
  // of them, and per node how many times MessageReceived was raised.
  double Flood(int64_t n, std::vector<int64_t>& raised) {
    flood_ = n;
    for (auto& seen : seen_) seen.assign(static_cast<size_t>(n), false);
    distinct_.assign(kRing, 0);
    raised_.assign(kRing, 0);
    const std::string& payload = Payload();
    const int64_t start = NowNs();
    for (int64_t i = 0; i < n; ++i) {
      nodes_[0]->SendMessage(std::to_string(i) + " " + payload, "BROADCAST");
      if ((i + 1) % kBatch == 0) qel::DoEvents(0);
    }
    const int64_t limit = NowNs() + kWaitNs;
    auto reached = [&] {
      return std::all_of(distinct_.begin() + 1, distinct_.end(), [n](int64_t d) { return d == n; });
    };
    while (!reached() && NowNs() < limit) Turn();
    const double seconds = static_cast<double>(NowNs() - start) / 1e9;
    Settle();
    raised = raised_;
    flood_ = 0;
    return seconds;
  }

  // Errors the nodes reported; without the window, queues that overflow
  // are part of the figure.
  int32_t errors() const { return errors_; }
  const std::string& firstError() const { return firstError_; }

 private:
  void DialRaw() {
    raw_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{.sin_family = AF_INET,
                   .sin_port = htons(static_cast<uint16_t>(nodes_[0]->ListenPort()))};
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(raw_, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
      throw std::runtime_error("the raw peer cannot connect");
    }
    fcntl(raw_, F_SETFL, fcntl(raw_, F_GETFL) | O_NONBLOCK);
    Settle();  // the node's announcement
  }

  void SendRaw(const std::string& bytes) {
    size_t sent = 0;
    const int64_t limit = NowNs() + kWaitNs;
    while (sent < bytes.size()) {
      const ssize_t n = send(raw_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n > 0)
        sent += static_cast<size_t>(n);
      else if (errno != EAGAIN && errno != EWOULDBLOCK)
        throw std::runtime_error("raw send failed");
      if (NowNs() > limit) throw std::runtime_error("the node stopped reading");
      Turn();
    }
  }

  // One turn of the loop, then whatever reached the raw peer.
  void Turn() {
    qel::DoEvents(1);
    char buffer[65536];
    for (ssize_t n; (n = recv(raw_, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;) {
      gotBytes_ += n;
      moved_ = true;
      feeder_.Feed(std::string_view(buffer, static_cast<size_t>(n)), [this](qel::typMessage&& m) {
        got_.emplace_back(m.MsgType, qel::GetSingleField(m.Fields, "ID"));
      });
    }
  }

  // Runs the loop until nothing has moved for kQuietNs.
  void Settle() {
    int32_t last = stats_.InPacketCount();
    int64_t quietSince = NowNs();
    const int64_t limit = quietSince + kWaitNs;
    while (NowNs() - quietSince < kQuietNs) {
      if (NowNs() > limit) throw std::runtime_error("the ring never fell quiet");
      moved_ = false;
      if (raw_ >= 0)
        Turn();
      else
        qel::DoEvents(5);
      if (const int32_t now = stats_.InPacketCount(); now != last || moved_) {
        last = now;
        quietSince = NowNs();
      }
    }
  }

  void OnMessage(int at, const std::string& text) {
    if (flood_ == 0) return;
    ++raised_[at];
    const int64_t index = std::atoll(text.c_str());
    if (index < 0 || index >= flood_) return;
    auto seen = seen_[at].begin() + index;
    if (!*seen) {
      *seen = true;
      ++distinct_[at];
    }
  }

  std::vector<std::unique_ptr<qel::cQEL>> nodes_;
  qel::cQELStats stats_;
  int32_t errors_ = 0;
  std::string firstError_;
  int raw_ = -1;
  qel::MessageFeeder feeder_;
  std::vector<std::pair<std::string, std::string>> got_;  // type and ID
  int64_t gotBytes_ = 0;
  bool moved_ = false;
  int64_t flood_ = 0;
  std::vector<bool> seen_[kRing];
  std::vector<int64_t> distinct_, raised_;
};

std::string Ratio(const Burst& b) {
  char text[160];
  std::snprintf(text, sizeof text, "%.1fx (%lld B in, %lld B back), %.2f answers per question",
                static_cast<double>(b.out) / static_cast<double>(std::max<int64_t>(b.in, 1)),
                static_cast<long long>(b.in), static_cast<long long>(b.out),
                static_cast<double>(b.answers) / kQuestions);
  return text + std::string(", ") + std::to_string(b.ownCopies) + " own copies back";
}

// A small folder every node shares, for SEARCH to find.
std::string MakeShare() {
  const std::string folder =
      std::filesystem::temp_directory_path().string() + "/qel-ring-" + std::to_string(getpid());
  std::filesystem::create_directories(folder);
  for (int i = 0; i < 5; ++i) {
    std::ofstream(folder + "/file" + std::to_string(i) + ".txt") << "file " << i;
  }
  return folder;
}

void Run(Channel& channel, int32_t dupWindow, int64_t broadcasts) {
  UseLoopback();
  const std::string share = MakeShare();
  Ring ring(dupWindow, share);
  const std::string prefix = "ring of 5, dupWindow " + std::to_string(dupWindow) + ": ";
  channel.Send("line " + prefix + std::to_string(kQuestions) + " WHOIS bring back " +
               Ratio(ring.Ask("WHOIS", "", "", "INFO")));
  channel.Send("line " + prefix + std::to_string(kQuestions) + " SEARCH bring back " +
               Ratio(ring.Ask("SEARCH", "file", "Type: File\r\n", "SEARCHMATCH")));
  channel.Send("line " + prefix + std::to_string(kQuestions) + " SYNCUSERS bring back " +
               Ratio(ring.Ask("SYNCUSERS", "", "", "USERLIST")));
  std::vector<int64_t> raised;
  const double seconds = ring.Flood(broadcasts, raised);
  std::string counts;
  for (size_t i = 0; i < raised.size(); ++i) {
    counts += (i == 0 ? "" : ", ") + std::to_string(raised[i]);
  }
  char time[32];
  std::snprintf(time, sizeof time, "%.1f s", seconds);
  channel.Send("line " + prefix + std::to_string(broadcasts) + " broadcasts from n0 reach all in " +
               time + "; MessageReceived raised per node (n0..n4): " + counts);
  std::filesystem::remove_all(share);
  if (ring.errors() > 0) {
    channel.Send("line " + prefix + "the nodes reported " + std::to_string(ring.errors()) +
                 " errors, the first: " + ring.firstError());
  }
  channel.Send("done");
}

}  // namespace

void AmplificationFigure(int32_t dupWindow, int64_t broadcasts) {
  Child child(
      "amplification", [=](Channel& c) { Run(c, dupWindow, broadcasts); }, kLifetimeSeconds);
  for (;;) {
    std::optional<std::string> line = child.channel().Receive(kLifetimeSeconds * 1000);
    if (!line) {
      std::printf("amplification, dupWindow %d: failed (no answer)\n", dupWindow);
      break;
    }
    if (line->starts_with("line ")) {
      std::printf("amplification, %s\n", line->c_str() + 5);
    } else if (*line == "done") {
      break;
    } else {
      std::printf("amplification, dupWindow %d: failed (%s)\n", dupWindow, line->c_str());
      break;
    }
    std::fflush(stdout);
  }
  std::fflush(stdout);
}

}  // namespace qelbench
