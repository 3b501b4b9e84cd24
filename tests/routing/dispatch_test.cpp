// The table that picks a message's handler by its type.
#include "routing/dispatch.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace qel {
namespace {

using Plain = void (*)(RoutingNode&, typMessage&, const Arrival&);

void First(RoutingNode&, typMessage&, const Arrival&) {}
void Second(RoutingNode&, typMessage&, const Arrival&) {}

Plain Target(const MessageHandler* handler) {
  if (!handler) return nullptr;
  const Plain* plain = handler->target<Plain>();
  return plain ? *plain : nullptr;
}

TEST(DispatcherTest, OnlyTheWholeTypeFindsItsHandler) {
  Dispatcher table;
  table.Register("PING", First);
  table.Register("PONG", Second);  // same length and first byte
  table.Register("GET", First);
  table.Register("GETFILEINFO", Second);
  EXPECT_EQ(Target(table.Find("PING")), &First);
  EXPECT_EQ(Target(table.Find("PONG")), &Second);
  EXPECT_EQ(Target(table.Find("GET")), &First);
  EXPECT_EQ(Target(table.Find("GETFILEINFO")), &Second);
  for (const char* other : {"", "P", "PIN", "PINGS", "ping", "GETFILE", "MSG"}) {
    EXPECT_EQ(table.Find(other), nullptr) << other;
  }
}

// Two owners for one type would silently take each other's messages.
TEST(DispatcherTest, ATypeRegisteredTwiceIsRefusedAndKeepsItsFirstHandler) {
  Dispatcher table;
  table.Register("MSG", First);
  EXPECT_THROW(table.Register("MSG", Second), std::logic_error);
  EXPECT_THROW(table.Register("", Second), std::logic_error);
  EXPECT_EQ(Target(table.Find("MSG")), &First);
}

}  // namespace
}  // namespace qel
