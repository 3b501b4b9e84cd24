// A host handler that throws must not stop its node.
#include "node/events.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "../support/peers.h"

namespace qel::test {
namespace {

TEST(EventsTest, AThrowingHandlerIsReportedAndTheNodeKeepsServing) {
  Peer a("a", "", true), b("b");
  b.ConnectTo(a);
  a.node.MessageReceived = [&](std::string& text, std::string&, std::string&) {
    a.messages.push_back(text);
    throw std::runtime_error("host bug");
  };
  a.node.Error = [&](std::string& text, std::string&) {
    a.errors.push_back(text);
    throw 42;
  };

  testing::internal::CaptureStderr();
  b.node.SendMessage("one", a.ID());
  b.node.SendMessage("oops", a.ID(), "ERROR");
  b.node.SendMessage("two", a.ID());
  const bool arrived = Eventually([&] { return a.messages.size() == 2; });
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
  c.ConnectTo(a);
  c.node.SendMessage("three", a.ID());
  ASSERT_TRUE(Eventually([&] { return a.messages.size() == 3; }));
}

}  // namespace
}  // namespace qel::test
