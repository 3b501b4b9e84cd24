#include "core/debug_log.h"

#include <gtest/gtest.h>

namespace qel {
namespace {

TEST(DebugLogTest, AnOversizeLineIsCutAndOlderLinesGiveWay) {
  DebugLog log;
  log.EnableForTest();
  log.Write("old line");
  testing::internal::CaptureStderr();
  log.Write(std::string(DebugLog::kLimit * 2, 'x'));
  EXPECT_LE(testing::internal::GetCapturedStderr().size(), DebugLog::kLimit);
  EXPECT_LE(log.Text().size(), DebugLog::kLimit);
  EXPECT_TRUE(log.Text().starts_with("xxx"));

  testing::internal::CaptureStderr();
  for (int i = 0; i < 100; ++i) log.Write(std::string(999, static_cast<char>('a' + i % 26)));
  testing::internal::GetCapturedStderr();
  EXPECT_LE(log.Text().size(), DebugLog::kLimit);
  EXPECT_TRUE(log.Text().ends_with(std::string(999, 'v') + "\r\n"));
  EXPECT_EQ(log.Text().find(std::string(1000, 'x')), std::string::npos);
}

}  // namespace
}  // namespace qel
