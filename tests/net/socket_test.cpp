#include "net/socket.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include "../support/peers.h"
#include "net/local_address.h"

namespace qel::test {
namespace {

// A listener on a free loopback port that keeps what it accepts.
struct Server {
  std::vector<std::unique_ptr<Socket>> accepted;
  std::string received;
  Listener listener{[this](std::unique_ptr<Socket> socket) {
    socket->SetHandlers({.onData = [this](std::string_view data) { received.append(data); }});
    accepted.push_back(std::move(socket));
  }};
  Server() { EXPECT_FALSE(listener.Listen(0)); }
  uint16_t Port() const { return listener.LocalPort(); }
};

TEST(SocketTest, ConnectsSendsBothWaysAndSeesThePeerClose) {
  Server server;
  ASSERT_EQ(server.listener.State(), SocketState::Listening);
  Socket client;
  std::string clientReceived;
  bool connected = false, closed = false;
  size_t sent = 0;
  client.SetHandlers({.onConnected = [&] { connected = true; },
                      .onData = [&](std::string_view data) { clientReceived.append(data); },
                      .onPeerClosed = [&](const std::error_code&) { closed = true; },
                      .onSent = [&](size_t n) { sent += n; }});
  client.Connect("127.0.0.1", server.Port());
  EXPECT_EQ(client.State(), SocketState::Connecting);
  ASSERT_TRUE(Eventually([&] { return connected && server.accepted.size() == 1; }));
  EXPECT_EQ(client.State(), SocketState::Connected);
  EXPECT_EQ(server.accepted[0]->RemoteHost(), "127.0.0.1");

  // Queued in one turn: arrives complete and in order.
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    client.Send("message " + std::to_string(i) + "\n");
    expected += "message " + std::to_string(i) + "\n";
  }
  ASSERT_TRUE(Eventually([&] { return server.received.size() == expected.size(); }));
  EXPECT_EQ(server.received, expected);
  EXPECT_EQ(sent, expected.size());

  server.accepted[0]->Send("reply");
  server.accepted[0]->Close();
  ASSERT_TRUE(Eventually([&] { return closed; }));
  EXPECT_EQ(clientReceived, "reply");
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
  ASSERT_TRUE(Eventually([&] { return failed; }));
  EXPECT_EQ(client.State(), SocketState::Error);
}

TEST(SocketTest, AHandlerMayDestroyItsSocket) {
  Server server;
  auto client = std::make_unique<Socket>();
  client->SetHandlers({.onData = [&](std::string_view) { client.reset(); }});
  client->Connect("127.0.0.1", server.Port());
  ASSERT_TRUE(Eventually([&] { return !server.accepted.empty(); }));
  server.accepted[0]->Send("boom");
  ASSERT_TRUE(Eventually([&] { return client == nullptr; }));
  DoEvents(10);
}

// Reads share one buffer: a handler that holds its bytes and runs the loop
// must find them intact after other sockets read in that loop, and reading
// goes on for both once it returns.
TEST(SocketTest, BytesAHandlerHoldsSurviveReadsOfOtherSocketsInItsLoop) {
  Server server;
  Socket a, b;
  std::string bReceived, aLater;
  bool intact = false;
  b.SetHandlers({.onData = [&](std::string_view data) { bReceived.append(data); }});
  a.SetHandlers({.onData = [&](std::string_view data) {
    if (intact || !aLater.empty()) {
      aLater.append(data);
      return;
    }
    const std::string copy(data);
    server.accepted[1]->Send(std::string(50000, 'b'));
    EXPECT_TRUE(Eventually([&] { return bReceived.size() == 50000; }));
    intact = data == copy;
    if (!intact) aLater = "x";  // what came later no longer matters
  }});
  a.Connect("127.0.0.1", server.Port());
  ASSERT_TRUE(Eventually([&] { return server.accepted.size() == 1; }));
  b.Connect("127.0.0.1", server.Port());
  ASSERT_TRUE(Eventually([&] { return server.accepted.size() == 2; }));

  server.accepted[0]->Send(std::string(1000, 'a'));
  ASSERT_TRUE(Eventually([&] { return bReceived.size() == 50000; }));
  EXPECT_TRUE(intact);
  server.accepted[0]->Send("more for a");
  server.accepted[1]->Send("more for b");
  ASSERT_TRUE(Eventually([&] { return !aLater.empty() && bReceived.size() > 50000; }));
  EXPECT_EQ(aLater, "more for a");
  EXPECT_EQ(bReceived.substr(50000), "more for b");
}

// A room is good for one read: each is given a fresh one and the last is
// freed, so a socket that wrote where an earlier room was fails under ASan.
// Reads offered no room go to the data handler, and the bytes stay in order.
TEST(SocketTest, EachReadGoesToTheRoomOfferedForItOrElseToTheDataHandler) {
  Server server;
  Socket client;
  std::string received;
  std::unique_ptr<char[]> room;
  size_t roomSize = 0, reads = 0, direct = 0;
  client.SetHandlers({
      .onData = [&](std::string_view data) { received.append(data); },
      .onReadRoom = [&]() -> std::span<char> {
        room.reset();
        roomSize = ++reads % 3 == 0 ? 0 : 1 + reads * 7919 % 5000;
        room = std::make_unique<char[]>(roomSize);
        return {room.get(), roomSize};
      },
      .onDirect =
          [&](size_t n) {
            EXPECT_GT(n, 0u);
            EXPECT_LE(n, roomSize);
            received.append(room.get(), n);
            direct += n;
          },
  });
  client.Connect("127.0.0.1", server.Port());
  ASSERT_TRUE(Eventually([&] { return server.accepted.size() == 1; }));
  std::string sent(300000, '\0');
  for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 31 + i / 977);
  for (size_t at = 0; at < sent.size(); at += 10000) {
    server.accepted[0]->Send(std::string_view(sent).substr(at, 10000));
    DoEvents(0);
  }
  ASSERT_TRUE(Eventually([&] { return received.size() == sent.size(); }));
  EXPECT_EQ(received, sent);
  EXPECT_GT(direct, 0u);
  EXPECT_LT(direct, sent.size());
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
  Dial(listener.LocalPort());
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit full{static_cast<rlim_t>(dup(0)), limit.rlim_max};  // the next free one
  setrlimit(RLIMIT_NOFILE, &full);
  // A spinning accept never lets these return.
  for (int i = 0; i < 5; ++i) DoEvents(Listener::kAcceptBackoffMs);
  if (errors != 1 || !accepted.empty()) std::_Exit(12);
  setrlimit(RLIMIT_NOFILE, &limit);
  std::_Exit(Eventually([&] { return accepted.size() == 1; }) ? 0 : 13);
}

TEST(SocketTest, AcceptingWithoutDescriptorsBacksOffAndRecovers) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizers need descriptors of their own to check memory";
#endif
  // A fresh process: a forked copy would share the loop's epoll instance.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(AcceptUnderDescriptorLimit(), testing::ExitedWithCode(0), "");
}

TEST(LocalAddressTest, PrefersTheFirstAddressOutsideLoopbackAnd192168) {
  EXPECT_EQ(ChooseLocalAddress({"127.0.0.1", "192.168.0.9", "172.16.0.1", "8.8.8.8"}),
            "172.16.0.1");
  EXPECT_EQ(ChooseLocalAddress({"192.168.2.2", "127.0.0.1"}), "192.168.2.2");
  EXPECT_EQ(ChooseLocalAddress({}), "");
}

}  // namespace
}  // namespace qel::test
