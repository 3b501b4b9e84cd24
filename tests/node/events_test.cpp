// A host handler that throws must not stop its node.
#include "node/events.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include <qel/qel.h>

#include "net/event_loop.h"
#include "node/module.h"
#include "node/node_access.h"

namespace qel {
namespace {

constexpr int64_t kDeadlineMs = 10000;

struct Peer {
  cQEL node;
  std::vector<std::string> messages, errors;
  explicit Peer(const std::string& name) {
    node.MessageReceived = [this](std::string& text, std::string&, std::string&) {
      messages.push_back(text);
    };
    node.Initialise(name);
  }
  NodeState& State() { return *TheModule().Slot(detail::NodeAccess::SlotIndex(node)); }
  std::string Address() { return "127.0.0.1:" + std::to_string(State().ListenPort); }
  bool Knows(const std::string& id) { return State().NodeCache.Find(id) >= 0; }
};

TEST(EventsTest, AThrowingHandlerIsReportedAndTheNodeKeepsServing) {
  Peer a("a"), b("b");
  ASSERT_TRUE(a.node.Listen());
  ASSERT_TRUE(b.node.Connect(a.Address()));
  ASSERT_TRUE(RunUntil([&] { return a.Knows(b.node.NodeID()); }, kDeadlineMs));
  a.node.MessageReceived = [&](std::string& text, std::string&, std::string&) {
    a.messages.push_back(text);
    throw std::runtime_error("host bug");
  };
  a.node.Error = [&](std::string& text, std::string&) {
    a.errors.push_back(text);
    throw 42;
  };

  testing::internal::CaptureStderr();
  b.node.SendMessage("one", a.node.NodeID());
  b.node.SendMessage("oops", a.node.NodeID(), "ERROR");
  b.node.SendMessage("two", a.node.NodeID());
  const bool arrived = RunUntil([&] { return a.messages.size() == 2; }, kDeadlineMs);
  const std::string said = testing::internal::GetCapturedStderr();
  ASSERT_TRUE(arrived);
  EXPECT_EQ(a.messages, (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(a.errors, (std::vector<std::string>{"oops"}));
  EXPECT_NE(said.find("QEL: the MessageReceived handler threw (Error 5: host bug)"),
            std::string::npos)
      << said;
  EXPECT_NE(said.find("QEL: the Error handler threw (Error 5: Unknown fault)"), std::string::npos)
      << said;

  // Its listener still takes new connections.
  Peer c("c");
  ASSERT_TRUE(c.node.Connect(a.Address()));
  ASSERT_TRUE(RunUntil([&] { return a.Knows(c.node.NodeID()); }, kDeadlineMs));
  c.node.SendMessage("three", a.node.NodeID());
  ASSERT_TRUE(RunUntil([&] { return a.messages.size() == 3; }, kDeadlineMs));
}

}  // namespace
}  // namespace qel
