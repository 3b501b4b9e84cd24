// Nodes and raw TCP peers for tests that talk over loopback.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <qel/qel.h>

#include "net/event_loop.h"
#include "net/socket.h"
#include "node/module.h"
#include "node/node_access.h"
#include "protocol/feeder.h"

namespace qel::test {

constexpr int64_t kDeadlineMs = 10000;

inline bool Eventually(const std::function<bool()>& done) {
  return RunUntil(done, kDeadlineMs);
}

inline NodeState& StateOf(cQEL& node) {
  return *TheModule().Slot(detail::NodeAccess::SlotIndex(node));
}

// A settings text from blank-separated "key=value" words.
inline std::string Settings(const std::string& words) {
  cSettings settings;
  std::istringstream in(words);
  for (std::string w; in >> w;)
    settings.SaveSetting(w.substr(0, w.find('=')), w.substr(w.find('=') + 1));
  return settings.getXML();
}

// A node with everything it raised written down.
struct Peer {
  cQEL node;
  std::vector<std::string> messages, types, senders, errors, closed, closedIDs, established;
  explicit Peer(const std::string& name, const std::string& settings = "", bool listen = false) {
    node.MessageReceived = [this](std::string& text, std::string& type, std::string& from) {
      messages.push_back(text);
      types.push_back(type);
      senders.push_back(from);
    };
    node.Error = [this](std::string& text, std::string&) { errors.push_back(text); };
    node.ConnectionClosed = [this](std::string& ip, std::string& id) {
      closed.push_back(ip);
      closedIDs.push_back(id);
    };
    node.ConnectionEstab = [this](std::string& ip) { established.push_back(ip); };
    node.Initialise(name, 0, role_Peer, "", "", settings);
    if (listen) {
      EXPECT_TRUE(node.Listen());
    }
  }
  std::string ID() { return node.NodeID(); }
  uint16_t Port() { return static_cast<uint16_t>(node.ListenPort()); }
  std::string Address() { return "127.0.0.1:" + std::to_string(Port()); }
  bool Knows(const std::string& id) { return StateOf(node).NodeCache.Find(id) >= 0; }
  // Connects and waits until the other has our INFO, so it knows which link is ours.
  void ConnectTo(Peer& other) {
    ASSERT_TRUE(node.Connect(other.Address()));
    ASSERT_TRUE(Eventually([&] { return other.Knows(ID()); }));
  }
};

inline sockaddr_in Loopback(uint16_t port) {
  sockaddr_in at{.sin_family = AF_INET, .sin_port = htons(port)};
  at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return at;
}

// A POSIX listening socket on a free loopback port, which it sets.
inline int ListenRaw(uint16_t& port, int backlog) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in at = Loopback(0);
  socklen_t size = sizeof at;
  EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
  EXPECT_EQ(listen(fd, backlog), 0);
  getsockname(fd, reinterpret_cast<sockaddr*>(&at), &size);
  port = ntohs(at.sin_port);
  return fd;
}

// A blocking POSIX connection, for peers that must not run on the loop.
// Sends time out, so a node that stops reading fails the test, not hangs it.
inline int Dial(uint16_t port, int receiveBuffer = 0) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (receiveBuffer > 0)
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  timeval limit{.tv_sec = 10};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  const sockaddr_in to = Loopback(port);
  EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
  return fd;
}

// A raw TCP peer of a node that keeps every MSG it is sent, by ID, and every
// other message by ReqID; arrivals lists the type and ID of each message.
struct RawPeer {
  Socket socket;
  MessageFeeder feeder;
  std::map<std::string, typMessage> got, answers;
  std::vector<std::pair<std::string, std::string>> arrivals;
  bool connected = false, closedByNode = false;
  explicit RawPeer(Peer& node) {
    socket.SetHandlers({.onConnected = [this] { connected = true; },
                        .onData =
                            [this](std::string_view data) {
                              feeder.Feed(data, [this](typMessage&& m) {
                                arrivals.emplace_back(m.MsgType, GetSingleField(m.Fields, "ID"));
                                if (m.MsgType == "MSG") got[GetSingleField(m.Fields, "ID")] = m;
                                else answers[GetSingleField(m.Fields, "ReqID")] = m;
                              });
                            },
                        .onPeerClosed = [this](const std::error_code&) { closedByNode = true; }});
    const size_t before = node.established.size();
    socket.Connect("127.0.0.1", node.Port());
    EXPECT_TRUE(Eventually([&] { return connected && node.established.size() > before; }));
  }
  bool Got(const std::string& id) { return got.contains(id); }
};

// A MSG as a raw peer writes it; fields go between Source and ID.
inline std::string RawMsg(const std::string& id, const std::string& fields, const std::string& body,
                          const std::string& destination = "BROADCAST") {
  return "MSG  QEL/2.1\r\nDestination: " + destination + "\r\nSource: RAW\r\n" + fields +
         "ID: " + id + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// Every handler of target runs the loop; the first ones make one sender send
// more, read in those loops one and two levels down, while a second sender
// floods. send(flood, tag, count, size) sends count messages, tag0 to tagN,
// each padded with size dots, from the flood sender or the other. Each
// sender's messages must come in the order sent.
inline void ExpectOrderWhileHandlersRunTheLoop(
    Peer& target,
    const std::function<void(bool flood, const std::string& tag, int count, size_t size)>& send) {
  std::vector<std::string> fromPeer, fromFlood;
  target.node.MessageReceived = [&](std::string& text, std::string&, std::string&) {
    (text[0] == 'd' ? fromFlood : fromPeer).push_back(text.substr(0, text.find('.')));
    if (text.starts_with("a0.")) {
      send(false, "b", 6, 10);
      send(true, "d", 10, 1000);
    }
    if (text.starts_with("a1.")) send(false, "c", 6, 10);
    target.node.GetNodeInfo("NOBODY", false);  // waits Timeout, running the loop
  };
  send(false, "a", 6, 10);
  ASSERT_TRUE(Eventually([&] { return fromPeer.size() == 18 && fromFlood.size() == 10; }));
  std::vector<std::string> sent;
  for (const char* tag : {"a", "b", "c"}) {
    for (int i = 0; i < 6; ++i) sent.push_back(tag + std::to_string(i));
  }
  EXPECT_EQ(fromPeer, sent);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(fromFlood[i], "d" + std::to_string(i));
}

}  // namespace qel::test
