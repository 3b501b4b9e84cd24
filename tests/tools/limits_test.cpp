// Hostile loads from raw TCP peers against a `qel node` process.
#include <time.h>

#include <fstream>

#include "../support/peers.h"
#include "node_process.h"

namespace {

using qel::test::Dial;

// Sends what the node takes; stops when it closes the connection.
void SendAll(int fd, std::string_view data) {
  for (ssize_t n; !data.empty() && (n = send(fd, data.data(), data.size(), MSG_NOSIGNAL)) > 0;) {
    data.remove_prefix(static_cast<size_t>(n));
  }
}

// A message for everybody, or, to be relayed only, for a node nobody knows.
std::string Broadcast(const std::string& body, const std::string& id,
                      const std::string& destination = "BROADCAST") {
  return qel::test::RawMsg(id, "TTL: 2\r\n", body, destination);
}

// A /proc/PID/status figure in bytes ("VmRSS", "VmHWM").
int64_t StatusBytes(pid_t pid, const std::string& key) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line) && !line.starts_with(key + ":")) {
  }
  return in ? std::stoll(line.substr(key.size() + 1)) * 1024 : -1;
}

double CpuSeconds(pid_t pid) {
  clockid_t clock{};
  timespec used{};
  EXPECT_TRUE(clock_getcpuclockid(pid, &clock) == 0 && clock_gettime(clock, &used) == 0);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

// Sends text to everybody over fd and waits for the node to deliver it.
void Served(NodeProcess& node, int fd, const std::string& text) {
  static int sent = 0;
  SendAll(fd, Broadcast(text, "SERVED" + std::to_string(++sent)));
  node.WaitEvent("MessageReceived", MessageIs(text));
}

TEST(QelLimitsTest, OutOfDescriptorsTheNodeIdlesAndKeepsServing) {
  rlimit own{};
  getrlimit(RLIMIT_NOFILE, &own);
  if (own.rlim_max < 1024) GTEST_SKIP() << "needs 1024 descriptors";
  rlimit raised{own.rlim_max, own.rlim_max};
  setrlimit(RLIMIT_NOFILE, &raised);

  NodeProcess node({}, 256);
  const auto port = node.WaitEvent("Ready")["Port"].get<uint16_t>();
  const int calm = Dial(port);
  node.WaitEvent("ConnectionEstab");
  std::vector<int> flood;
  for (int i = 0; i < 600; ++i) flood.push_back(Dial(port));
  node.WaitEvent("Error", [](const json& l) {
    return l.value("strMessage", "").find("paused") != std::string::npos;
  });
  // While 350 connections wait for descriptors the node is served at once
  // and burns no CPU; a spinning accept takes a whole core.
  const double cpuBefore = CpuSeconds(node.Pid());
  const auto start = Clock::now();
  Served(node, calm, "still served");
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
  node.WaitFor([](const json&) { return false; }, std::chrono::seconds(1));
  EXPECT_LT(CpuSeconds(node.Pid()) - cpuBefore, 0.3);
  for (int fd : flood) close(fd);
  close(calm);
  setrlimit(RLIMIT_NOFILE, &own);
}

TEST(QelLimitsTest, StalledPeersKeepTheNodeNearItsMemoryBudget) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer's quarantine holds freed memory";
#endif
  constexpr int64_t kBudget = 64 << 20;
  // Beyond the budget: the message being relayed and its copies, and what
  // the allocator has not handed back yet.
  constexpr int64_t kSlack = 64 << 20;
  NodeProcess node({"--set", "memoryBudget=" + std::to_string(kBudget), "--set",
                    "maxMessage=" + std::to_string(16 << 20)});
  const auto port = node.WaitEvent("Ready")["Port"].get<uint16_t>();
  const int64_t baseline = StatusBytes(node.Pid(), "VmRSS");

  // Ten bodies announced at 16 MiB that stop at 12 MiB: 120 MiB held
  // without a budget.
  std::vector<int> stalled;
  const std::string body = Broadcast(std::string(16 << 20, 'b'), "BIG");
  for (int i = 0; i < 10; ++i) {
    stalled.push_back(Dial(port));
    SendAll(stalled.back(), std::string_view(body).substr(0, 12 << 20));
  }
  // Eight peers that never read while another floods: each would be let
  // queue 32 MiB.
  std::vector<int> stuck;
  for (int i = 0; i < 8; ++i) stuck.push_back(Dial(port, 4096));
  const int flooder = Dial(port);
  const std::string chunk(4 << 20, 'f');
  for (int i = 0; i < 24; ++i) {
    SendAll(flooder, Broadcast(chunk, "FLOOD" + std::to_string(i), "ELSEWHERE"));
  }
  // Whoever held the most was closed on the way, the flooder too perhaps; a
  // fresh peer is served.
  const int marker = Dial(port);
  Served(node, marker, "marker");
  close(marker);
  const int64_t peak = StatusBytes(node.Pid(), "VmHWM");
  EXPECT_LT(peak, baseline + kBudget + kSlack);

  for (int fd : stalled) close(fd);
  for (int fd : stuck) close(fd);
  close(flooder);
  // Once they are gone the node gives the memory back.
  for (int i = 0; i < 20; ++i) node.WaitEvent("ConnectionClosed");
  const int probe = Dial(port);
  Served(node, probe, "after");
  // The allocator may keep some; most must go.
  EXPECT_LT(StatusBytes(node.Pid(), "VmRSS") - baseline, (peak - baseline) / 2)
      << "peak " << (peak >> 20) << " MiB, at start " << (baseline >> 20);
  close(probe);
}

}  // namespace
