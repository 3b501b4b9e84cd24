#include <gtest/gtest.h>

#include "../support/error_text.h"
#include "../support/peers.h"

namespace qel::test {
namespace {

const std::string kInvalid =
    "-2147221502 switchSession: Cannot switch to session. Invalid session index: ";

int32_t SlotOf(cQEL& node) {
  return detail::NodeAccess::SlotIndex(node);
}

TEST(ModuleGuardTest, RefusesCallsBeforeSetUpAndForSlotsThatDoNotExist) {
  Module module;
  EXPECT_EQ(ErrorText([&] { module.SwitchSession(1, true); }),
            "-2147221503 switchSession: QEL not initialised");
  module.Init();
  for (int32_t bad : {0, -1, 1}) {
    EXPECT_EQ(ErrorText([&] { module.SwitchSession(bad, true); }), kInvalid + std::to_string(bad));
  }
  cQEL node;
  node.ShutDown();
  EXPECT_EQ(ErrorText([&] { node.switchRole(role_Server); }), kInvalid + "-1");
}

TEST(ModuleSlotsTest, ShutDownRenumbersOnlyLaterNodesAndKeepsTheirState) {
  auto a = std::make_unique<cQEL>(), b = std::make_unique<cQEL>(), c = std::make_unique<cQEL>();
  const int32_t base = SlotOf(*a);
  ASSERT_EQ(SlotOf(*c), base + 2);
  a->Initialise("a");
  c->Initialise("c");
  const std::string idA = StateOf(*a).NodeID, idC = StateOf(*c).NodeID;

  b->ShutDown();
  EXPECT_EQ(SlotOf(*a), base);
  EXPECT_EQ(SlotOf(*c), base + 1);
  EXPECT_EQ(StateOf(*a).NodeID, idA);
  b.reset();  // destroying a shut-down node is harmless
  a.reset();  // destroying a live one shuts it down

  EXPECT_EQ(SlotOf(*c), base);
  EXPECT_FALSE(TheModule().IsValidSlot(base + 1));
  c->switchRole(role_Router);
  EXPECT_EQ(StateOf(*c).NodeID, idC);
  EXPECT_EQ(StateOf(*c).Owner, c.get());
}

}  // namespace
}  // namespace qel::test
