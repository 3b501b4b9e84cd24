#include "protocol/feeder.h"

#include <gtest/gtest.h>

#include <vector>

namespace qel {
namespace {

using Outcome = MessageFeeder::Outcome;

// What a delivered message carries, compared as one string.
std::string Summary(const typMessage& m) {
  std::string out = m.MsgType + "|" + m.Resource + "|";
  for (size_t i = 1; i < m.Fields.size(); ++i)
    out += m.Fields[i].Name + "=" + m.Fields[i].Value + ";";
  return out + "|" + m.Body;
}

struct Collector {
  explicit Collector(size_t maxHeader = 65536, int64_t maxMessage = 67108864)
      : feeder({maxHeader, maxMessage}) {}
  MessageFeeder feeder;
  std::vector<std::string> got;
  Outcome Feed(std::string_view data) {
    return feeder.Feed(data, [this](typMessage&& m) { got.push_back(Summary(m)); });
  }
};

const std::string kPing = "PING  QEL/2.1\r\nID: 2\r\n\r\n";

TEST(FeederTest, StreamCutAnywhereGivesTheSameMessages) {
  // A body holding the header's terminator and a high byte, a message without
  // a body, two malformed headers (only they are lost) and lengths that are no
  // number (no body either).
  const std::string stream = "MSG  QEL/2.1\r\nID: 1\r\nContent-Length: 9\r\n\r\nbod\xFF\r\n\r\n!" +
                             kPing + "MSG  QEL/2.1\r\nno colon here\r\n\r\n" + "NOSPACE\r\n\r\n" +
                             "GET /a%20b QEL/2.1\r\nContent-Length: 3\r\n\r\nxyz" +
                             "MSG  QEL/2.1\r\nContent-Length: -5\r\n\r\n" +
                             "MSG  QEL/2.1\r\nContent-Length: 2abc\r\n\r\n";
  const std::vector<std::string> expected = {
      "MSG||ID=1;Content-Length=9;|bod\xFF\r\n\r\n!", "PING||ID=2;|",
      "GET|\\a b|Content-Length=3;|xyz", "MSG||Content-Length=-5;|", "MSG||Content-Length=2abc;|"};
  Collector bytes;
  for (char c : stream) EXPECT_EQ(bytes.Feed(std::string_view(&c, 1)), Outcome::Ok);
  EXPECT_EQ(bytes.got, expected);
  EXPECT_EQ(bytes.feeder.malformedCount(), 2u);
  // Every pair of cuts: three pieces, or fewer when cuts coincide or sit at an end.
  for (size_t i = 0; i <= stream.size(); ++i) {
    for (size_t j = i; j <= stream.size(); ++j) {
      Collector split;
      split.Feed(std::string_view(stream).substr(0, i));
      split.Feed(std::string_view(stream).substr(i, j - i));
      split.Feed(std::string_view(stream).substr(j));
      ASSERT_EQ(split.got, expected) << "cuts " << i << " " << j;
      ASSERT_EQ(split.feeder.malformedCount(), 2u) << "cuts " << i << " " << j;
    }
  }
}

TEST(FeederTest, OversizedInputIsRefused) {
  Collector header(32);
  const std::string exact = "MSG  QEL/2.1\r\nA: 12345678901\r\n\r\n";
  ASSERT_EQ(exact.size(), 32u);
  EXPECT_EQ(header.Feed(exact + exact.substr(0, 20)), Outcome::Ok);
  EXPECT_EQ(header.Feed(std::string(13, 'x')), Outcome::HeaderTooLong);
  EXPECT_EQ(header.got.size(), 1u);

  Collector body(65536, 10), huge(65536, INT64_MAX);
  EXPECT_EQ(body.Feed("MSG  QEL/2.1\r\nContent-Length: 10\r\n\r\n0123456789"), Outcome::Ok);
  EXPECT_EQ(body.Feed("MSG  QEL/2.1\r\nContent-Length: 11\r\n\r\n"), Outcome::BodyTooLong);
  EXPECT_EQ(huge.Feed("MSG  QEL/2.1\r\nContent-Length: 2147483648\r\n\r\n"), Outcome::BodyTooLong);
  EXPECT_EQ(body.got.size(), 1u);
}

}  // namespace
}  // namespace qel
