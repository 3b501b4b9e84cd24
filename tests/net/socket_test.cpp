#include "net/socket.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <qel/event_loop.h>

#include "net/event_loop.h"

namespace qel {
namespace {

constexpr int64_t kDeadlineMs = 10000;

// A listener on a free loopback port that keeps what it accepts.
struct Server {
  std::vector<std::unique_ptr<Socket>> accepted;
  std::string received;
  Listener listener{[this](std::unique_ptr<Socket> socket) {
    Socket* raw = socket.get();
    raw->SetHandlers({.onData = [this](std::string_view data) { received.append(data); }});
    accepted.push_back(std::move(socket));
  }};
  Server() { EXPECT_FALSE(listener.Listen(0)); }
  uint16_t Port() const { return listener.LocalPort(); }
};

TEST(SocketTest, ConnectsSendsBothWaysAndSeesThePeerClose) {
  Server server;
  ASSERT_EQ(server.listener.State(), SocketState::Listening);
  ASSERT_NE(server.Port(), 0);

  Socket client;
  std::string clientReceived;
  bool connected = false, closed = false;
  size_t sent = 0;
  client.SetHandlers({.onConnected = [&] { connected = true; },
                      .onData = [&](std::string_view data) { clientReceived.append(data); },
                      .onPeerClosed = [&] { closed = true; },
                      .onSent = [&](size_t n) { sent += n; }});
  client.Connect("127.0.0.1", server.Port());
  EXPECT_EQ(client.State(), SocketState::Connecting);
  ASSERT_TRUE(RunUntil([&] { return connected && server.accepted.size() == 1; }, kDeadlineMs));
  EXPECT_EQ(client.State(), SocketState::Connected);
  EXPECT_EQ(server.accepted[0]->RemoteHost(), "127.0.0.1");

  // Queued in one turn: arrives complete and in order.
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    client.Send("message " + std::to_string(i) + "\n");
    expected += "message " + std::to_string(i) + "\n";
  }
  ASSERT_TRUE(RunUntil([&] { return server.received.size() == expected.size(); }, kDeadlineMs));
  EXPECT_EQ(server.received, expected);
  EXPECT_EQ(sent, expected.size());

  server.accepted[0]->Send("reply");
  ASSERT_TRUE(RunUntil([&] { return clientReceived == "reply"; }, kDeadlineMs));

  server.accepted[0]->Close();
  ASSERT_TRUE(RunUntil([&] { return closed; }, kDeadlineMs));
  EXPECT_EQ(client.State(), SocketState::Closed);
}

TEST(SocketTest, RefusedConnectEndsInErrorAndAPortInUseCannotBeListenedOn) {
  uint16_t port;
  {
    Server first;
    port = first.Port();
    Listener second{[](std::unique_ptr<Socket>) {}};
    EXPECT_TRUE(second.Listen(port));
    EXPECT_EQ(second.State(), SocketState::Closed);
  }  // nobody listens there now
  Socket client;
  bool failed = false;
  client.SetHandlers({.onError = [&](const std::error_code&) { failed = true; }});
  client.Connect("127.0.0.1", port);
  ASSERT_TRUE(RunUntil([&] { return failed; }, kDeadlineMs));
  EXPECT_EQ(client.State(), SocketState::Error);
}

TEST(SocketTest, AHandlerMayDestroyItsSocket) {
  Server server;
  auto client = std::make_unique<Socket>();
  bool connected = false;
  client->SetHandlers({.onConnected = [&] { connected = true; },
                       .onData = [&](std::string_view) { client.reset(); }});
  client->Connect("127.0.0.1", server.Port());
  ASSERT_TRUE(RunUntil([&] { return connected && !server.accepted.empty(); }, kDeadlineMs));
  server.accepted[0]->Send("boom");
  ASSERT_TRUE(RunUntil([&] { return client == nullptr; }, kDeadlineMs));
  DoEvents(10);
}

// Accepting without descriptors fails at once and would fail again at once:
// the listener must wait instead of spinning, say so once, and recover. Run
// in a child process, whose descriptor limit it lowers.
[[noreturn]] void AcceptUnderDescriptorLimit() {
  int errors = 0;
  std::vector<std::unique_ptr<Socket>> accepted;
  Listener listener([&](std::unique_ptr<Socket> s) { accepted.push_back(std::move(s)); },
                    [&](const std::error_code&) { ++errors; });
  if (listener.Listen(0)) std::_Exit(10);
  int client = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in to{.sin_family = AF_INET, .sin_port = htons(listener.LocalPort())};
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(client, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) std::_Exit(11);
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit full{static_cast<rlim_t>(dup(0)), limit.rlim_max};  // the next free one
  setrlimit(RLIMIT_NOFILE, &full);
  // A spinning accept never lets these return.
  for (int i = 0; i < 5; ++i) DoEvents(Listener::kAcceptBackoffMs);
  if (errors != 1 || !accepted.empty()) std::_Exit(12);
  setrlimit(RLIMIT_NOFILE, &limit);
  std::_Exit(RunUntil([&] { return accepted.size() == 1; }, kDeadlineMs) ? 0 : 13);
}

TEST(SocketTest, AcceptingWithoutDescriptorsBacksOffAndRecovers) {
  EXPECT_EXIT(AcceptUnderDescriptorLimit(), testing::ExitedWithCode(0), "");
}

// Post, RunEventLoop and StopEventLoop drive the qel console; qel_node_test
// runs them from its reader thread.
TEST(EventLoopTest, TimersTickUntilDisabled) {
  int ticks = 0;
  Timer timer([&] { ++ticks; });
  timer.SetInterval(5);
  timer.Enable(true);
  ASSERT_TRUE(RunUntil([&] { return ticks >= 3; }, kDeadlineMs));
  timer.Enable(false);
  int seen = ticks;
  DoEvents(30);
  EXPECT_EQ(ticks, seen);
}

}  // namespace
}  // namespace qel
