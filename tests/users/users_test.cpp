// The user list on its own: stamps in both forms, the merge by stamp and the
// answer to a login.
#include <gtest/gtest.h>

#include <qel/error.h>
#include <qel/settings.h>

#include "users/stamps.h"
#include "users/user_list.h"

namespace qel {
namespace {

TEST(StampTest, BothFormsReadAsTheSameLocalSecond) {
  const std::optional<Stamp> iso = ReadStamp("2026-03-07 14:05:09");
  ASSERT_TRUE(iso);
  EXPECT_EQ(WriteStamp(*iso), "2026-03-07 14:05:09");
  EXPECT_EQ(ReadStamp("3/7/2026 2:05:09 PM"), iso);
  EXPECT_EQ(ReadStamp("03/07/2026 02:05:09 PM"), iso);
  EXPECT_EQ(ReadStamp("3/7/2026 12:00:00 AM"), ReadStamp("3/7/2026"));
  EXPECT_EQ(ReadStamp("3/7/2026 12:30:00 PM"), ReadStamp("2026-03-07 12:30:00"));
  for (const char* bad : {"", "yesterday", "2026-02-30 10:00:00", "2026-03-07 24:00:00",
                          "3/7/2026 13:00:00 PM", "3/7/2026 2:05:09", "2026-03-07 14:05:09x",
                          "3/7/2026 0:05:09 AM", "-1/7/2026", "99999999-01-01 00:00:00"}) {
    EXPECT_EQ(ReadStamp(bad), std::nullopt) << bad;
  }
  // Later to the second wins; what cannot be read is never taken, and a
  // local stamp that cannot be read loses.
  EXPECT_TRUE(ReceivedIsNewer("2026-03-07 14:05:10", "3/7/2026 2:05:09 PM"));
  EXPECT_FALSE(ReceivedIsNewer("2026-03-07 14:05:09", "3/7/2026 2:05:09 PM"));
  EXPECT_FALSE(ReceivedIsNewer("garbage", ""));
  EXPECT_TRUE(ReceivedIsNewer("1/1/2000", "garbage"));
}

std::string Record(cSettings& list, const std::string& user) {
  std::string out;
  for (const char* key : {"Password", "Authority", "Updated"}) {
    out += list.GetSetting(key, "-", user).toString() + "|";
  }
  return out;
}

TEST(UserListTest, MergeTakesLaterRecordsAndStopsAtABrokenOne) {
  cSettings list;
  SetUser(list, "ann", "old", "here", "2026-01-01 10:00:00");
  SetUser(list, "bob", "mine", "here", "2026-01-01 10:00:00");
  cSettings received;
  SetUser(received, "ann", "new", "there", "1/2/2026 9:00:00 AM");
  SetUser(received, "bob", "theirs", "there", "12/31/2025 11:00:00 PM");
  SetUser(received, "cat", "c", "there", "2026-01-01 00:00:00");
  SetUser(received, "dan", "d", "there", "not a date");
  received.SaveSetting("Password", "e", "eve");  // no stamp: the merge stops here
  SetUser(received, "fay", "f", "there", "2026-01-01 00:00:00");
  MergeRefusals refused;
  EXPECT_THROW(MergeUserList(list, received, *ReadStamp("2026-06-01 00:00:00"), refused),
               QelError);
  EXPECT_EQ(Record(list, "ann"), "new|there|1/2/2026 9:00:00 AM|");
  EXPECT_EQ(Record(list, "bob"), "mine|here|2026-01-01 10:00:00|");
  EXPECT_EQ(Record(list, "cat"), "c|there|2026-01-01 00:00:00|");
  EXPECT_EQ(Record(list, "dan"), "-|-|-|");
  EXPECT_EQ(Record(list, "fay"), "-|-|-|");
}

// The list travels as text that escapes nothing: what would not read back
// is refused before it is written.
TEST(UserListTest, RecordsThatWouldNotReadBackAreRefused) {
  cSettings list;
  for (const char* name : {"", "a<b", "a>b", "/etc", "Settings", "x</y"}) {
    EXPECT_THROW(SetUser(list, name, "p", "here"), QelError) << name;
  }
  EXPECT_THROW(SetUser(list, "ann", "p</Password>", "here"), QelError);
  EXPECT_THROW(SetUser(list, "ann", "p", "<Settings>"), QelError);
  SetUser(list, "a/b c", "p<q>", "here");
  cSettings copy;
  copy.LoadXML(list.getXML());
  EXPECT_EQ(Record(copy, "a/b c").substr(0, 10), "p<q>|here|");
  EXPECT_EQ(copy.ListSections().size(), 2u);
}

TEST(UserListTest, LoginNeedsAKnownUserAndTheExactPassword) {
  cSettings list;
  SetUser(list, "ann", "Secret", "here");
  SetUser(list, "nopass", "", "here");
  SetUser(list, "gone", "x", "here");
  for (const char* key : {"Password", "Authority", "Updated"}) list.DeleteSetting(key, "gone");
  EXPECT_EQ(LoginAnswer(list, "ann:Secret"), "OK");
  EXPECT_EQ(LoginAnswer(list, "ann:secret"), "INVALID");
  EXPECT_EQ(LoginAnswer(list, "ann:Secret:"), "INVALID");
  EXPECT_EQ(LoginAnswer(list, "nopass:"), "OK");
  for (const char* unknown : {"zed:<unknown>", "zed:", "gone:<unknown>", "gone:x"}) {
    EXPECT_EQ(LoginAnswer(list, unknown), "INVALID") << unknown;
  }
  EXPECT_THROW(LoginAnswer(list, "ann"), QelError);
}

}  // namespace
}  // namespace qel
