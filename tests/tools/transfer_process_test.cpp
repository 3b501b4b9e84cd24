// Fetches between `qel node --json` processes, C from A through the relay B,
// while one of them is paused or killed.
#include "node_process.h"

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

namespace {

namespace fs = std::filesystem;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;  // memory safety is what matters there, not size
#else
constexpr bool kSanitized = false;
#endif

// A /proc/PID/status figure in bytes ("VmRSS", "VmHWM").
int64_t StatusBytes(pid_t pid, const std::string& key) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line) && !line.starts_with(key + ":")) {
  }
  return in ? std::stoll(line.substr(key.size() + 1)) * 1024 : -1;
}

// Empty when both files hold the same bytes, else where they part.
std::string Difference(const fs::path& got, const fs::path& source) {
  std::ifstream x(got, std::ios::binary), y(source, std::ios::binary);
  if (!x || !y) return "cannot read " + got.string() + " or " + source.string();
  std::string bx(1 << 20, '\0'), by(1 << 20, '\0');
  for (int64_t offset = 0;; offset += x.gcount()) {
    x.read(bx.data(), static_cast<std::streamsize>(bx.size()));
    y.read(by.data(), static_cast<std::streamsize>(by.size()));
    if (x.gcount() != y.gcount() || bx.compare(0, x.gcount(), by, 0, y.gcount()) != 0) {
      return "they differ in the MiB from byte " + std::to_string(offset);
    }
    if (x.gcount() == 0) return "";
  }
}

bool IsResult(const json& l) {
  return l.value("command", "") == "get";
}

// A shares a folder of pseudo-random files, B relays, C is linked to B only.
class TransferProcessTest : public testing::Test {
 protected:
  void SetUp() override {
    // Large files are written and read back several times: in memory when
    // the machine offers it.
    const fs::path base = fs::is_directory("/dev/shm") ? "/dev/shm" : testing::TempDir();
    dir_ = base / ("qel-transfer-" + std::to_string(getpid()) + "-" +
                   testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(dir_ / "share");
    fs::create_directories(dir_ / "got");
  }
  void TearDown() override { fs::remove_all(dir_); }

  // Writes a shared file of size bytes and returns its remote path.
  std::string Share(const std::string& name, size_t size, uint64_t seed) {
    std::ofstream out(dir_ / "share" / name, std::ios::binary);
    std::vector<uint64_t> block((1 << 20) / sizeof(uint64_t));
    for (size_t left = size; left > 0;) {
      for (uint64_t& word : block) {  // xorshift64: fast, and no two files alike
        seed ^= seed << 13;
        seed ^= seed >> 7;
        seed ^= seed << 17;
        word = seed;
      }
      const size_t n = std::min(left, block.size() * sizeof(uint64_t));
      out.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(n));
      left -= n;
    }
    EXPECT_TRUE(out.good());
    return "\\" + name;
  }
  // Polls the size of a local file until it reaches atLeast or a generous
  // deadline passes; the last size seen. The file shows a fetch's flow at
  // once, where progress reports come every fifth of a second.
  uintmax_t WaitGrown(const std::string& name, uintmax_t atLeast) const {
    std::error_code ec;
    uintmax_t seen = 0;
    for (const auto deadline = Clock::now() + kDeadline; Clock::now() < deadline;
         poll(nullptr, 0, 1)) {
      if (const uintmax_t now = fs::file_size(Got(name), ec); !ec) seen = now;
      if (seen >= atLeast) break;
    }
    return seen;
  }
  fs::path Source(const std::string& name) const { return dir_ / "share" / name; }
  std::string Got(const std::string& name) const { return (dir_ / "got" / name).string(); }

  // Starts A and C with their extra arguments; B comes from StartRelay.
  void StartEnds(std::vector<std::string> cArgs, std::vector<std::string> aArgs = {}) {
    aArgs.insert(aArgs.begin(), {"--name", "a", "--share", (dir_ / "share").string()});
    a_ = std::make_unique<NodeProcess>(aArgs);
    ra_ = WaitReady(*a_);
    cArgs.insert(cArgs.begin(), {"--name", "c"});
    c_ = std::make_unique<NodeProcess>(cArgs);
    WaitReady(*c_);
  }
  // Starts B linked to A, on port when it is not 0; returns its address.
  std::string StartRelay(uint16_t port = 0) {
    b_ = std::make_unique<NodeProcess>(std::vector<std::string>{
        "--name", "b", "--port", std::to_string(port), "--connect", ra_.address});
    const Ready rb = WaitReady(*b_);
    EXPECT_EQ(b_->WaitFor(IsCommand("connect"))["ok"], true) << b_->Output();
    return rb.address;
  }
  static Match IsCommand(const std::string& word) {
    return [word](const json& l) { return l.value("command", "") == word; };
  }

  fs::path dir_;
  std::unique_ptr<NodeProcess> a_, b_, c_;
  Ready ra_;
};

// C is stopped for a moment, again and again, while a large file flows to
// it: what C cannot take waits in the kernel's buffers and A's, not in B.
TEST_F(TransferProcessTest, PausedReaderGetsEveryByteAndTheRelayHoldsLittle) {
  const size_t size = kSanitized ? 32 << 20 : 256 << 20;
  const std::string path = Share("big", size, 1);
  StartEnds({});
  ASSERT_FALSE(ra_.id.empty());
  ASSERT_EQ(c_->Command("connect " + StartRelay())["ok"], true);
  NodeProcess& c = *c_;

  c.Send("get " + ra_.id + " " + path + " " + Got("big") + " verify");
  // Each pause comes once a thirty-second of the file more is here: all
  // fall inside the transfer, each after some flow, however fast it runs.
  constexpr int kPauses = 5;
  int pauses = 0;
  for (uintmax_t local = 0; pauses < kPauses; ++pauses) {
    const uintmax_t wanted = local + size / 32;
    local = WaitGrown("big", wanted);
    if (local < wanted || local >= size) break;  // stuck, or too late to tell from the end
    ASSERT_EQ(kill(c.Pid(), SIGSTOP), 0);
    // Stopped a few tenths of a second, while what C wrote before is read.
    c.WaitFor([](const json&) { return false; }, std::chrono::milliseconds(400));
    ASSERT_EQ(kill(c.Pid(), SIGCONT), 0);
  }
  EXPECT_EQ(pauses, kPauses) << "the transfer ended before the pauses";
  const json result = c.WaitFor(IsResult, std::chrono::seconds(120));
  const int64_t relayPeak = StatusBytes(b_->Pid(), "VmHWM");
  ASSERT_EQ(result["ok"], true) << result;
  EXPECT_EQ(result["value"]["FileStatus"], 1);
  EXPECT_EQ(result["value"]["bytes"], size);
  EXPECT_EQ(Difference(Got("big"), Source("big")), "");
  RecordProperty("relayPeakMiB", static_cast<int>(relayPeak >> 20));
  if (kSanitized) GTEST_SKIP() << "the sanitizer's quarantine holds freed memory";
  // What C asks for and has not read (the window, 8 MiB) plus socket
  // buffers and the allocator's keep; a relay holding the file breaks it.
  EXPECT_LT(relayPeak, int64_t{96} << 20) << (relayPeak >> 20) << " MiB";
}

// B dies mid-fetch and comes back on its port; C's maintained link to it is
// made again and the fetch asks again for what did not arrive.
TEST_F(TransferProcessTest, RelayKilledAndRestartedMidFetchTheFetchEndsWhole) {
  const size_t size = kSanitized ? 32 << 20 : 128 << 20;
  const std::string path = Share("file", size, 2);
  // Two seconds without a byte before asking again, five times: the link
  // is made again within the re-dial interval, well inside that.
  constexpr int kStallSeconds = 2, kRetries = 5, kRedialSeconds = 5;
  StartEnds({"--set", "transferStall=" + std::to_string(kStallSeconds), "--set",
             "transferRetries=" + std::to_string(kRetries)});
  const std::string relay = StartRelay();
  ASSERT_FALSE(relay.empty());
  const auto port = static_cast<uint16_t>(std::stoi(relay.substr(relay.rfind(':') + 1)));
  NodeProcess& c = *c_;
  ASSERT_EQ(c.Command("connect " + relay + " maintain")["ok"], true);
  c.WaitEvent("ConnectionEstab");

  c.Send("get " + ra_.id + " " + path + " " + Got("file"));
  const uintmax_t local = WaitGrown("file", size / 8);
  ASSERT_GE(local, size / 8);
  ASSERT_LT(local, size);
  const auto killed = Clock::now();
  ASSERT_EQ(kill(b_->Pid(), SIGKILL), 0);
  b_.reset();
  c.WaitEvent("ConnectionClosed");
  // C re-dials at once, into the dying B's listener at times (a link that
  // is reset as soon as made) or onto a closed port, then every re-dial
  // interval: the link comes back within that of B's return.
  ASSERT_EQ(StartRelay(port), relay);
  const json result = c.WaitFor(IsResult, std::chrono::seconds(60));
  const auto took = Clock::now() - killed;
  ASSERT_FALSE(result.is_null()) << c.Output();
  // Never a success with other bytes; a failure says why, in time.
  if (result["ok"] == true) {
    EXPECT_EQ(result["value"]["bytes"], size);
    EXPECT_EQ(Difference(Got("file"), Source("file")), "");
  } else {
    EXPECT_FALSE(result.value("error", "").empty()) << result;
    EXPECT_LT(took, std::chrono::seconds(kStallSeconds * (kRetries + 1) + kRedialSeconds + 10));
  }
  EXPECT_EQ(result["ok"], true) << result << "\nC:\n" << c.Output() << "\nA:\n" << a_->Output();
}

// Peers that ask for a large file again and again and read nothing: the
// transfers past the serving caps wait holding nothing open, or are
// refused, and each link holds a few pieces, so the node stays within its
// budget and its descriptors within its connections.
TEST_F(TransferProcessTest, AFloodOfGetsFromPeersThatDoNotReadStaysWithinTheBudget) {
  constexpr int kConnections = 40, kGets = 400;
  constexpr int64_t kBudget = int64_t{64} << 20;
  std::ofstream(Source("big")).close();
  fs::resize_file(Source("big"), 64 << 20);  // sparse: only its reads cost memory
  a_ = std::make_unique<NodeProcess>(
      std::vector<std::string>{"--name", "a", "--share", (dir_ / "share").string(), "--set",
                               "memoryBudget=" + std::to_string(kBudget)});
  ra_ = WaitReady(*a_);
  ASSERT_FALSE(ra_.id.empty());
  const int port = std::stoi(ra_.address.substr(ra_.address.rfind(':') + 1));

  std::vector<int> peers;
  for (int i = 0; i < kConnections; ++i) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int small = 4096;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    const timeval limit{.tv_sec = 10};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_in to{.sin_family = AF_INET, .sin_port = htons(static_cast<uint16_t>(port))};
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
    peers.push_back(fd);
  }
  for (int i = 0; i < kConnections; ++i) {
    std::string gets;
    for (int n = 0; n < kGets; ++n) {
      const std::string id = std::to_string(i) + "-" + std::to_string(n);
      gets += "GET \\big QEL/2.1\r\nDestination: " + ra_.id + "\r\nSource: RAW" +
              std::to_string(i) + "\r\nReqID: R" + id + "\r\nID: G" + id + "\r\nTTL: 1\r\n\r\n";
    }
    for (size_t sent = 0; sent < gets.size();) {
      const ssize_t n = send(peers[i], gets.data() + sent, gets.size() - sent, MSG_NOSIGNAL);
      ASSERT_GT(n, 0) << "the node stopped reading";
      sent += static_cast<size_t>(n);
    }
  }
  // Every GET taken, or the node cut a peer off for memory (then it could
  // not take that peer's rest).
  json stats;
  for (const auto deadline = Clock::now() + std::chrono::seconds(60); Clock::now() < deadline;) {
    stats = a_->Command("stats")["value"];
    if (stats["InPacketCount"].get<int64_t>() >= kConnections * kGets ||
        stats["Refused"]["memory"].get<int64_t>() > 0) {
      break;
    }
  }
  const int64_t peak = StatusBytes(a_->Pid(), "VmHWM");
  const auto fds =
      std::distance(fs::directory_iterator("/proc/" + std::to_string(a_->Pid()) + "/fd"),
                    fs::directory_iterator());
  RecordProperty("peakMiB", static_cast<int>(peak >> 20));
  RecordProperty("descriptors", static_cast<int>(fds));
  EXPECT_GE(stats["InPacketCount"].get<int64_t>(), kConnections * kGets) << stats;
  EXPECT_EQ(stats["Refused"]["memory"], 0) << stats;
  EXPECT_GT(stats["Refused"]["serving"].get<int64_t>(), 0) << stats;
  EXPECT_LT(fds, kConnections + 64);
  for (int fd : peers) close(fd);
  if (kSanitized) GTEST_SKIP() << "the sanitizer's quarantine holds freed memory";
  EXPECT_LT(peak, 2 * kBudget + (int64_t{32} << 20)) << (peak >> 20) << " MiB";
}

}  // namespace
