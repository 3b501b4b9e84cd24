#include "protocol/feeder.h"

#include <gtest/gtest.h>

#include <random>
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
  // A body holding the header's terminator, a message without a body, two
  // malformed headers (only they are lost) and lengths that are no number (no
  // body either).
  const std::string stream = "MSG  QEL/2.1\r\nID: 1\r\nContent-Length: 9\r\n\r\nbody\r\n\r\n!" +
                             kPing + "MSG  QEL/2.1\r\nno colon here\r\n\r\n" + "NOSPACE\r\n\r\n" +
                             "GET /a%20b QEL/2.1\r\nContent-Length: 3\r\n\r\nxyz" +
                             "MSG  QEL/2.1\r\nContent-Length: -5\r\n\r\n" +
                             "MSG  QEL/2.1\r\nContent-Length: 2abc\r\n\r\n";
  const std::vector<std::string> expected = {
      "MSG||ID=1;Content-Length=9;|body\r\n\r\n!", "PING||ID=2;|",
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
  EXPECT_EQ(header.Feed(exact), Outcome::Ok);
  EXPECT_EQ(header.Feed(exact.substr(0, 20)), Outcome::Ok);
  EXPECT_EQ(header.Feed(std::string(13, 'x')), Outcome::HeaderTooLong);
  EXPECT_EQ(header.got.size(), 1u);

  Collector body(65536, 10);
  EXPECT_EQ(body.Feed("MSG  QEL/2.1\r\nContent-Length: 10\r\n\r\n0123456789"), Outcome::Ok);
  EXPECT_EQ(body.Feed("MSG  QEL/2.1\r\nContent-Length: 11\r\n\r\n"), Outcome::BodyTooLong);
  Collector huge(65536, INT64_MAX);
  EXPECT_EQ(huge.Feed("MSG  QEL/2.1\r\nContent-Length: 2147483648\r\n\r\n"), Outcome::BodyTooLong);
  EXPECT_EQ(body.got.size(), 1u);
}

TEST(FeederTest, RandomSplitsAndGarbage) {
  const uint32_t seed = 20240611;
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 rng(seed);
  auto randomText = [&](size_t n, std::string_view alphabet) {
    std::string out(n, ' ');
    for (char& c : out) c = alphabet[rng() % alphabet.size()];
    return out;
  };
  auto feedInPieces = [&](Collector& c, const std::string& stream) {
    for (size_t at = 0, n; at < stream.size(); at += n) {
      n = std::min<size_t>(stream.size() - at, rng() % 40 + 1);
      c.Feed(std::string_view(stream).substr(at, n));
    }
  };

  for (int round = 0; round < 200; ++round) {
    std::string stream;
    std::vector<std::string> expected;
    for (int i = static_cast<int>(rng() % 6); i > 0; --i) {
      typMessage m = NewMessage();
      m.MsgType = randomText(rng() % 8 + 1, "ABCPQ");
      m.Resource = rng() % 2 ? "" : "\\" + randomText(rng() % 10, "ab \\");
      for (int f = static_cast<int>(rng() % 4); f > 0; --f) {
        std::string value = randomText(rng() % 6, "v :\r\n");
        for (size_t crlf; (crlf = value.find("\r\n")) != std::string::npos;) value.erase(crlf, 1);
        SetField(m.Fields, randomText(rng() % 5 + 1, "XYZ-"), value);
      }
      // Any bytes, the header's own terminator included.
      m.Body = randomText(rng() % 30, std::string("\r\n:\0\xFFz", 6));
      if (!m.Body.empty()) SetField(m.Fields, "Content-Length", std::to_string(m.Body.size()));
      SerialiseMessage(m, stream);
      expected.push_back(Summary(m));
    }
    Collector valid;
    feedInPieces(valid, stream);
    ASSERT_EQ(valid.got, expected) << stream;
    EXPECT_EQ(valid.feeder.malformedCount(), 0u);

    Collector garbage(256, 64);
    feedInPieces(garbage, randomText(rng() % 2000, "MSG: \r\n%20Content-Length12"));
  }
}

}  // namespace
}  // namespace qel
