#include "protocol/feeder.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace qel {
namespace {

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
  MessageFeeder::Outcome Feed(std::string_view data) {
    return feeder.Feed(data, [this](typMessage&& m) { got.push_back(Summary(m)); });
  }
};

const std::string kFirst = "MSG  QEL/2.1\r\nID: 1\r\nContent-Length: 9\r\n\r\nbody\r\n\r\n!";
const std::string kSecond = "PING  QEL/2.1\r\nID: 2\r\n\r\n";
const std::string kThird = "GET /a%20b QEL/2.1\r\nContent-Length: 3\r\n\r\nxyz";
const std::string kStream = kFirst + kSecond + kThird;
const std::vector<std::string> kExpected = {"MSG||ID=1;Content-Length=9;|body\r\n\r\n!",
                                            "PING||ID=2;|", "GET|\\a b|Content-Length=3;|xyz"};

TEST(FeederTest, StreamCutAnywhereGivesTheSameMessages) {
  {
    Collector whole;
    EXPECT_EQ(whole.Feed(kStream), MessageFeeder::Outcome::Ok);
    EXPECT_EQ(whole.got, kExpected);
  }
  {
    Collector bytes;
    for (char c : kStream) bytes.Feed(std::string_view(&c, 1));
    EXPECT_EQ(bytes.got, kExpected);
  }
  // Every pair of cuts: three pieces, or two when the cuts coincide.
  for (size_t i = 0; i <= kStream.size(); ++i) {
    for (size_t j = i; j <= kStream.size(); ++j) {
      Collector split;
      split.Feed(std::string_view(kStream).substr(0, i));
      split.Feed(std::string_view(kStream).substr(i, j - i));
      split.Feed(std::string_view(kStream).substr(j));
      ASSERT_EQ(split.got, kExpected) << "cuts " << i << " " << j;
    }
  }
}

TEST(FeederTest, MalformedHeaderDropsTheRestOfThePiece) {
  Collector c;
  c.Feed(kSecond.substr(0, 10));
  c.Feed("\r\nno colon here\r\n\r\n" + kSecond);
  EXPECT_EQ(c.feeder.malformedCount(), 1u);
  EXPECT_TRUE(c.got.empty());
  c.Feed(kSecond);
  EXPECT_EQ(c.got, std::vector<std::string>{"PING||ID=2;|"});
}

TEST(FeederTest, LengthThatIsNoNumberMeansNoBody) {
  Collector c;
  c.Feed("MSG  QEL/2.1\r\nContent-Length: 12abc\r\n\r\n" + kSecond);
  c.Feed("MSG  QEL/2.1\r\nContent-Length: -5\r\n\r\n");
  ASSERT_EQ(c.got.size(), 3u);
  EXPECT_EQ(c.got[1], "PING||ID=2;|");
}

TEST(FeederTest, OversizedInputIsRefused) {
  Collector header(32);
  const std::string exact = "MSG  QEL/2.1\r\nA: 12345678901\r\n\r\n";
  ASSERT_EQ(exact.size(), 32u);
  EXPECT_EQ(header.Feed(exact), MessageFeeder::Outcome::Ok);
  EXPECT_EQ(header.Feed(exact.substr(0, 20)), MessageFeeder::Outcome::Ok);
  EXPECT_EQ(header.Feed(std::string(13, 'x')), MessageFeeder::Outcome::HeaderTooLong);
  EXPECT_EQ(header.got.size(), 1u);

  Collector body(65536, 10);
  EXPECT_EQ(body.Feed("MSG  QEL/2.1\r\nContent-Length: 10\r\n\r\n0123456789"),
            MessageFeeder::Outcome::Ok);
  EXPECT_EQ(body.Feed("MSG  QEL/2.1\r\nContent-Length: 11\r\n\r\n"),
            MessageFeeder::Outcome::BodyTooLong);
  EXPECT_EQ(body.Feed("MSG  QEL/2.1\r\nContent-Length: 99999999999999999999\r\n\r\n"),
            MessageFeeder::Outcome::BodyTooLong);
  EXPECT_EQ(body.got.size(), 1u);
}

TEST(FeederTest, RandomSplitsAndGarbage) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  auto randomText = [&](size_t n, std::string_view alphabet) {
    std::string out(n, ' ');
    for (char& c : out) c = alphabet[rng() % alphabet.size()];
    return out;
  };
  auto feedInPieces = [&](Collector& c, const std::string& stream) {
    for (size_t at = 0; at < stream.size();) {
      size_t n = std::min<size_t>(stream.size() - at, rng() % 40 + 1);
      c.Feed(std::string_view(stream).substr(at, n));
      at += n;
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
