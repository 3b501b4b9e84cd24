// Remote procedure calls across three nodes of one process in a line
// (a - b - c): calls answered later and at once, names nobody bound, calls
// to every node, and hosts that unbind or throw inside their handlers.
#include <gtest/gtest.h>

#include "../support/peers.h"
#include "core/stats.h"
#include "routing/outgoing.h"

namespace qel::test {
namespace {

// What one handle raised, a line per event: "name params reqID nodeID".
struct Recorder {
  std::shared_ptr<cQELRPC> handle;
  std::vector<std::string> events;
  Recorder(cQEL& node, const std::string& name, enmRPCType type, bool ok = false)
      : handle(node.bindRPC(name, type)) {
    handle->RemoteProcCall = [this, ok](std::string& proc, std::string& params,
                                        std::string& reqID, std::string& nodeID, bool& sendOK) {
      events.push_back(proc + " " + params + " " + reqID + " " + nodeID);
      sendOK = ok;
    };
    handle->RemoteProcReturn = [this](std::string& proc, std::string& params, std::string& reqID,
                                      std::string& nodeID) {
      events.push_back(proc + " " + params + " " + reqID + " " + nodeID);
    };
  }
};

class RpcTest : public testing::Test {
 protected:
  void SetUp() override {
    c.ConnectTo(b);
    a.ConnectTo(b);
  }
  Peer a{"Ay", "", true}, b{"Bee", "", true}, c{"Cee", "", true};
};

TEST_F(RpcTest, CallsAreAnsweredLaterAtOnceOrAsUnbound) {
  Recorder returns(a.node, "add", RPC_RETURN);
  Recorder later(c.node, "Add", RPC_INCOMING);
  Recorder atOnce(c.node, "Ok", RPC_INCOMING, true);

  // Later: the host answers when it likes; a second answer sends nothing.
  const std::string id = a.node.callRemoteProc(c.ID(), "ADD", "1 2");
  ASSERT_TRUE(Eventually([&] { return later.events.size() == 1; }));
  EXPECT_EQ(later.events[0], "ADD 1 2 " + id + " " + a.ID());
  c.node.returnRemoteProc(id, "3");
  c.node.returnRemoteProc(id, "again");
  ASSERT_TRUE(Eventually([&] { return returns.events.size() == 1; }));
  EXPECT_EQ(returns.events[0], "add 3 " + id + " " + c.ID());

  // At once, through SendOK; and a name c never bound.
  Recorder ok(a.node, "OK", RPC_RETURN), missing(a.node, "missing", RPC_RETURN);
  const std::string okID = a.node.callRemoteProc(c.ID(), "ok", "");
  const std::string missingID = a.node.callRemoteProc(c.ID(), "missing", "x");
  ASSERT_TRUE(Eventually([&] { return ok.events.size() == 1 && missing.events.size() == 1; }));
  EXPECT_EQ(ok.events[0], "OK OK " + okID + " " + c.ID());
  EXPECT_EQ(missing.events[0], "missing RPC_UNBOUND " + missingID + " " + c.ID());
  EXPECT_EQ(returns.events.size(), 1u);  // the second answer never came

  // Without a binding for its returns a call is not made.
  EXPECT_EQ(a.node.callRemoteProc(c.ID(), "nobody", ""), "-1");

  // Unbinding needs the exact case.
  c.node.unbindRPC("add", RPC_INCOMING);
  a.node.callRemoteProc(c.ID(), "add", "");
  ASSERT_TRUE(Eventually([&] { return later.events.size() == 2; }));
  c.node.unbindRPC("Add", RPC_INCOMING);
  a.node.callRemoteProc(c.ID(), "add", "");
  ASSERT_TRUE(Eventually([&] { return returns.events.size() == 2; }));
  EXPECT_EQ(returns.events[1].substr(0, 16), "add RPC_UNBOUND ");
  EXPECT_TRUE(a.errors.empty() && c.errors.empty());
}

// Parameters travel in the header: what a header cannot carry is refused
// where it is written, and the call or answer is not lost.
TEST_F(RpcTest, ParametersAHeaderCannotCarryAreRefusedBeforeSending) {
  Recorder returns(a.node, "p", RPC_RETURN), calls(c.node, "p", RPC_INCOMING);
  const std::string huge(kMaxFieldBytes, 'x');
  EXPECT_EQ(a.node.callRemoteProc(c.ID(), "p", "two\r\nlines"), "");
  EXPECT_EQ(a.node.callRemoteProc(c.ID(), "p", huge), "");
  EXPECT_EQ(a.errors.size(), 2u);
  const std::string id = a.node.callRemoteProc(c.ID(), "p", "");
  ASSERT_TRUE(Eventually([&] { return calls.events.size() == 1; }));
  c.node.returnRemoteProc(id, huge);
  EXPECT_EQ(c.errors.size(), 1u);
  c.node.returnRemoteProc(id, "fits");
  ASSERT_TRUE(Eventually([&] { return returns.events.size() == 1; }));
  EXPECT_EQ(returns.events[0], "p fits " + id + " " + c.ID());
  EXPECT_TRUE(b.errors.empty() && c.closed.empty());
}

TEST_F(RpcTest, ACallToEveryNodeTakesEveryAnswer) {
  // b and c answer from inside their handlers.
  auto bHandle = b.node.bindRPC("who", RPC_INCOMING);
  auto cHandle = c.node.bindRPC("who", RPC_INCOMING);
  for (auto [peer, handle] : {std::pair{&b, bHandle}, std::pair{&c, cHandle}}) {
    handle->RemoteProcCall = [peer](std::string&, std::string&, std::string& reqID, std::string&,
                                    bool&) { peer->node.returnRemoteProc(reqID, peer->ID()); };
  }
  Recorder returns(a.node, "who", RPC_RETURN);
  const std::string id = a.node.callRemoteProc("BROADCAST", "who", "");
  ASSERT_TRUE(Eventually([&] { return returns.events.size() == 2; }));
  std::sort(returns.events.begin(), returns.events.end());
  // Each answer names the node that gave it.
  std::vector<std::string> expected = {"who " + b.ID() + " " + id + " " + b.ID(),
                                       "who " + c.ID() + " " + id + " " + c.ID()};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(returns.events, expected);
}

TEST_F(RpcTest, HandlersMayUnbindDropTheirHandleOrThrow) {
  Recorder returns(a.node, "p", RPC_RETURN);
  auto handle = c.node.bindRPC("p", RPC_INCOMING);
  int calls = 0;
  handle->RemoteProcCall = [&](std::string&, std::string& params, std::string&, std::string&,
                               bool& sendOK) {
    ++calls;
    sendOK = true;
    if (params == "unbind") c.node.unbindRPC("p", RPC_INCOMING);
    if (params == "drop") handle.reset();
    if (params == "throw") throw std::runtime_error("host fault");
  };
  for (const char* params : {"throw", "drop", "unbind"}) {
    a.node.callRemoteProc(c.ID(), "p", params);
  }
  // A throwing handler still counts as handled; after the unbind the call
  // was dropped unanswered, so two answers come.
  ASSERT_TRUE(Eventually([&] { return returns.events.size() == 2; }));
  EXPECT_EQ(calls, 3);
  a.node.callRemoteProc(c.ID(), "p", "");
  ASSERT_TRUE(Eventually([&] { return returns.events.size() == 3; }));
  EXPECT_EQ(returns.events[2].substr(0, 14), "p RPC_UNBOUND ");
}

// Calls a peer makes and the host never answers are held within a quarter
// of memoryBudget, the oldest going first; a ReqID past 256 bytes is not
// taken. Each is counted; the host hears of them once.
TEST(RpcLimitsTest, WaitingCallsStayWithinTheirShareOfTheBudget) {
  Peer host{"Host", Settings("memoryBudget=1048576"), true};  // 256 KiB for calls
  Recorder calls(host.node, "p", RPC_INCOMING);
  RawPeer raw(host);
  const int64_t refusals = TheStats().Refusals[static_cast<size_t>(Refusal::RpcCalls)];
  int sent = 0;
  auto call = [&](const std::string& reqID) {
    raw.socket.Send("RPC  QEL/2.1\r\nDestination: " + host.ID() +
                    "\r\nSource: RAW\r\nName: p\r\nReqID: " + reqID + "\r\nID: CALL" +
                    std::to_string(++sent) + "\r\nContent-Length: 0\r\n\r\n");
  };
  const std::string pad(200, 'r');
  call(std::string(257, 'L'));
  for (int i = 0; i < 1000; ++i) call(pad + std::to_string(i));
  ASSERT_TRUE(Eventually([&] { return calls.events.size() == 1000; }));
  EXPECT_EQ(calls.events[0], "p  " + pad + "0 RAW");  // the long one never came
  host.node.returnRemoteProc(pad + "0", "dropped");
  host.node.returnRemoteProc(pad + "999", "kept");
  ASSERT_TRUE(Eventually([&] { return raw.answers.contains(pad + "999"); }));
  EXPECT_FALSE(raw.answers.contains(pad + "0"));
  ASSERT_EQ(host.errors.size(), 1u);
  EXPECT_NE(host.errors[0].find("ReqID longer than 256 bytes"), std::string::npos);
  // One for the long identifier, one for each call that pushed older ones out.
  EXPECT_GT(TheStats().Refusals[static_cast<size_t>(Refusal::RpcCalls)], refusals + 100);
}

}  // namespace
}  // namespace qel::test
