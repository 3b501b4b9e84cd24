#include "core/module.h"

#include <gtest/gtest.h>

#include <qel/error.h>
#include <qel/node.h>

#include "core/node_access.h"

namespace qel {
namespace {

QelError CaughtError(const std::function<void()>& f) {
  try {
    f();
  } catch (const QelError& e) {
    return e;
  }
  return QelError(0, "", "");
}

int32_t SlotOf(cQEL& node) {
  return detail::NodeAccess::SlotIndex(node);
}
NodeState& StateOf(cQEL& node) {
  return *TheModule().Slot(SlotOf(node));
}

TEST(ModuleGuardTest, RefusesEveryCallBeforeSetUp) {
  Module fresh;
  QelError e = CaughtError([&] { fresh.SwitchSession(1, true); });
  EXPECT_EQ(e.Number, -2147221503);
  EXPECT_EQ(e.Source, "switchSession");
  EXPECT_EQ(e.Description, "QEL not initialised");
  EXPECT_STREQ(e.what(), "QEL not initialised");
}

TEST(ModuleGuardTest, NamesTheRequestedIndexWhenItIsInvalid) {
  Module module;
  module.Init();
  EXPECT_EQ(module.ProtocolVersion, "QEL/2.1");
  EXPECT_EQ(module.LocalAddress, "127.0.0.1");  // the test environment forces it
  for (int32_t bad : {0, -1, 1}) {
    QelError e = CaughtError([&] { module.SwitchSession(bad, true); });
    EXPECT_EQ(e.Number, -2147221502);
    EXPECT_EQ(e.Description,
              "Cannot switch to session. Invalid session index: " + std::to_string(bad));
  }
  int32_t slot = module.AddSlot(nullptr);
  EXPECT_EQ(slot, 1);
  NodeState& state = module.SwitchSession(slot, true);
  EXPECT_EQ(&state, module.Slot(slot).get());
  EXPECT_EQ(&module.SwitchSession(slot, true), &state);  // already current: same state
  EXPECT_EQ(module.CurrentSlot, 1);
}

TEST(ModuleGuardTest, CallsAfterShutDownFailWithMinusOne) {
  cQEL node;
  node.ShutDown();
  EXPECT_EQ(SlotOf(node), -1);
  QelError e = CaughtError([&] { node.switchRole(role_Server); });
  EXPECT_EQ(e.Number, -2147221502);
  EXPECT_EQ(e.Description, "Cannot switch to session. Invalid session index: -1");
  EXPECT_EQ(CaughtError([&] { node.ShutDown(); }).Number, -2147221502);
}

TEST(ModuleSlotsTest, ShutDownOfTheFirstOfTwoKeepsTheSecondWorking) {
  auto first = std::make_unique<cQEL>();
  cQEL second;
  int32_t base = SlotOf(*first);
  ASSERT_EQ(SlotOf(second), base + 1);
  second.Initialise("second");
  std::string id = StateOf(second).NodeID;

  first->ShutDown();
  EXPECT_EQ(SlotOf(second), base);
  EXPECT_EQ(TheModule().CurrentSlot, 0);  // no node is current afterwards
  second.switchRole(role_Router);
  EXPECT_EQ(StateOf(second).NodeID, id);
  EXPECT_EQ(StateOf(second).Role, role_Router);
  EXPECT_EQ(StateOf(second).Owner, &second);
  first.reset();  // destroying a shut-down node is harmless
  second.switchRole(role_Peer);
}

TEST(ModuleSlotsTest, ShutDownInTheMiddleOfThreeRenumbersOnlyLaterNodes) {
  cQEL a, b, c;
  int32_t base = SlotOf(a);
  a.Initialise("a");
  b.Initialise("b");
  c.Initialise("c");
  std::string idA = StateOf(a).NodeID, idC = StateOf(c).NodeID;

  b.ShutDown();
  EXPECT_EQ(SlotOf(a), base);
  EXPECT_EQ(SlotOf(c), base + 1);
  EXPECT_EQ(StateOf(a).NodeID, idA);
  EXPECT_EQ(StateOf(c).NodeID, idC);
  c.ShutDown();
  a.switchRole(role_Server);
  EXPECT_EQ(StateOf(a).Role, role_Server);
}

TEST(ModuleSlotsTest, NodesDestroyedInAnyOrderLeaveNoSlotBehind) {
  Module& module = TheModule();
  cQEL keeper;
  int32_t base = SlotOf(keeper);
  {
    auto x = std::make_unique<cQEL>();
    auto y = std::make_unique<cQEL>();
    auto z = std::make_unique<cQEL>();
    y.reset();
    x.reset();
    EXPECT_EQ(SlotOf(*z), base + 1);
  }
  EXPECT_FALSE(module.IsValidSlot(base + 1));
  EXPECT_TRUE(module.IsValidSlot(base));
}

}  // namespace
}  // namespace qel
