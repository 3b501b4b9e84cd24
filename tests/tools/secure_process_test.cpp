// `qel node --secure require` processes with keys trusted pairwise, watched on the wire.
#include "node_process.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <thread>

#include "../support/peers.h"
#include "core/node_key.h"

namespace {

// A TCP forwarder on a free loopback port to target that keeps a copy of every byte it
// passes, both ways. One connection; it ends when either side closes.
class Relay {
 public:
  explicit Relay(uint16_t target) {
    listener_ = qel::test::ListenRaw(port_, 1);
    thread_ = std::thread([this, target] {
      pollfd wait{listener_, POLLIN, 0};
      while (!stop_ && poll(&wait, 1, 50) <= 0) {
      }
      if (stop_) return;
      const int ends[2] = {accept(listener_, nullptr, nullptr), qel::test::Dial(target)};
      pollfd both[2] = {{ends[0], POLLIN, 0}, {ends[1], POLLIN, 0}};
      char buffer[65536];
      for (bool open = true; open && !stop_;) {
        if (poll(both, 2, 50) <= 0) continue;
        for (int i = 0; i < 2 && open; ++i) {
          if (!both[i].revents) continue;
          const ssize_t n = read(ends[i], buffer, sizeof buffer);
          std::lock_guard lock(mutex_);
          open = n > 0 && send(ends[1 - i], buffer, static_cast<size_t>(n), MSG_NOSIGNAL) == n;
          if (n > 0) seen_.append(buffer, static_cast<size_t>(n));
        }
      }
      close(ends[0]);
      close(ends[1]);
    });
  }
  ~Relay() {
    stop_ = true;
    thread_.join();
    close(listener_);
  }
  uint16_t Port() const { return port_; }
  std::string Seen() {
    std::lock_guard lock(mutex_);
    return seen_;
  }

 private:
  uint16_t port_ = 0;
  int listener_ = -1;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::string seen_;
  std::thread thread_;
};

// A fresh key written where `qel node --key` reads it.
struct KeyFile {
  qel::NodeKey key = qel::NodeKey::Fresh();
  std::string path;
  explicit KeyFile(const std::string& name)
      : path((std::filesystem::path(testing::TempDir()) /
              ("qel-key-" + name + "-" + std::to_string(getpid()) + ".pem"))
                 .string()) {
    std::ofstream(path) << key.Pem();
  }
  ~KeyFile() { std::filesystem::remove(path); }
  std::vector<std::string> Args(const std::string& name, const std::string& trusted) const {
    return {"--name", name, "--key", path, "--secure", "require", "--trust", trusted};
  }
};

TEST(SecureProcessTest, LineOfRequiringNodesCarriesWhatNoRelayCanRead) {
  KeyFile ka("a"), kb("b"), kc("c");
  // C shares a file; A fetches it and logs in as a user C made, through B.
  const std::filesystem::path dir =
      std::filesystem::path(testing::TempDir()) / ("qel-secure-line-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir / "share");
  std::ofstream(dir / "share" / "secret.txt") << "file bytes for a alone";
  NodeProcess b(kb.Args("b", ka.key.ID() + "," + kc.key.ID()));
  const Ready rb = WaitReady(b);
  ASSERT_FALSE(rb.id.empty());
  Relay relay(static_cast<uint16_t>(std::stoi(rb.address.substr(rb.address.rfind(':') + 1))));

  std::vector<std::string> argsC = kc.Args("c", kb.key.ID());
  argsC.insert(argsC.end(), {"--connect", rb.address, "--share", (dir / "share").string()});
  NodeProcess c(argsC);
  std::vector<std::string> argsA = ka.Args("a", kb.key.ID());
  argsA.insert(argsA.end(), {"--connect", "127.0.0.1:" + std::to_string(relay.Port())});
  NodeProcess a(argsA);
  const Ready ra = WaitReady(a), rc = WaitReady(c);
  const json up = a.WaitEvent("ConnectionEstab");
  EXPECT_EQ(up["Secure"], true);
  EXPECT_EQ(up["PeerKey"], kb.key.ID());
  EXPECT_EQ(c.WaitEvent("ConnectionEstab")["PeerKey"], kb.key.ID());
  EXPECT_EQ(b.WaitEvent("ConnectionEstab")["Secure"], true);
  EXPECT_EQ(b.WaitEvent("ConnectionEstab")["Secure"], true);

  EXPECT_EQ(a.Command("send " + rc.id + " words for c alone")["ok"], true);
  EXPECT_EQ(c.WaitEvent("MessageReceived", MessageIs("words for c alone"))["nodeID"], ra.id);
  const std::string fetched = (dir / "fetched.txt").string();
  a.Send("get " + rc.id + " \\secret.txt " + fetched);
  const json got = a.WaitFor([](const json& l) { return l.value("command", "") == "get"; });
  EXPECT_EQ(got["ok"], true) << got;
  std::ifstream in(fetched);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "file bytes for a alone");
  EXPECT_EQ(c.Command("user-set alice pass-for-alice")["ok"], true);
  // C's answer comes back the way its update went: B and A know alice by then.
  EXPECT_EQ(a.Command("ping " + rc.id + " 10000")["ok"], true);
  EXPECT_EQ(a.Command("login alice pass-for-alice")["value"], true);

  const std::string wire = relay.Seen();
  ASSERT_FALSE(wire.empty());
  EXPECT_EQ(wire[0], '\x16');
  for (const char* text : {"words for c", "file bytes", "secret.txt", "pass-for-alice", "alice"}) {
    EXPECT_EQ(wire.find(text), std::string::npos) << text;
  }
  EXPECT_EQ(wire.find("INFO"), std::string::npos);
  EXPECT_EQ(wire.find(ra.id), std::string::npos);
  std::filesystem::remove_all(dir);
}

}  // namespace
