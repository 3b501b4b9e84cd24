// Messages as a peer writes them: framing, header fields, flags, lengths and
// the resource path.
#include "protocol/message.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <random>

#include <qel/error.h>

#include "protocol/feeder.h"
#include "protocol/percent.h"

namespace qel {
namespace {

typMessage Parsed(std::string header, bool expectOk = true) {
  typMessage m = NewMessage();
  m.Header = std::move(header);
  EXPECT_EQ(ParseHeader(m), expectOk) << m.Header;
  return m;
}

TEST(MessageParseTest, ReadsStartLineResourceAndFields) {
  typMessage ping =
      Parsed("ping  QEL/2.1\r\nttl: 5\r\nRoute:  a, \r\nTTL: 6\r\n\r\nignored: x\r\n");
  EXPECT_EQ(ping.MsgType, "PING");
  EXPECT_EQ(ping.Resource, "");
  // A repeated name overwrites the first value in place.
  EXPECT_EQ(ping.Fields, (FieldList{{}, {"ttl", "6"}, {"Route", " a, "}}));

  EXPECT_EQ(Parsed("GET \\my%20docs\\a%20b.txt QEL/2.1\r\n\r\n").Resource, "\\my docs\\a b.txt");
  // Written back, after what the buffer held; exact bytes are in wire_test.
  std::string out = "queued";
  SerialiseMessage(ping, out);
  EXPECT_EQ(out, "queuedPING  QEL/2.1\r\nttl: 6\r\nRoute:  a, \r\n\r\n");
  EXPECT_EQ(Parsed("GET my%20docs/x QEL/2.1\r\n\r\n").Resource, "\\my docs\\x");
  // The version is not checked, nor even required.
  EXPECT_EQ(Parsed("GET /x\r\n\r\n").Resource, "\\x");
}

TEST(MessageParseTest, RefusesMalformedHeaders) {
  for (const char* bad :
       {"PING\r\n\r\n", "MSG  QEL/2.1\r\nTTL 5\r\n\r\n", "MSG  QEL/2.1\r\nTTL:5\r\n\r\n",
        // SetField would throw here; a peer's header must not.
        "MSG  QEL/2.1\r\nX-Max: 2\r\nX: 1\r\n\r\n"}) {
    Parsed(bad, false);
  }
  // A resource that does not decode is not malformed: it reads "\" and is
  // flagged for the receiver to report.
  typMessage get = Parsed("GET %41%zz QEL/2.1\r\nTTL: 3\r\n\r\n");
  EXPECT_EQ(get.Resource, "\\");
  EXPECT_TRUE(get.ResourceUndecodable);
  EXPECT_EQ(GetSingleField(get.Fields, "TTL"), "3");
  EXPECT_FALSE(Parsed("GET %41 QEL/2.1\r\n\r\n").ResourceUndecodable);
}

// ParseHeader stores lines itself for speed, switching to an index on long
// lists; it must agree with SetField line by line.
TEST(MessageParseTest, AgreesWithSetFieldLineByLine) {
  std::mt19937 rng(20240611);
  const std::vector<std::string> names = {"ttl",   "TTL", "Hops",  "X", "x-max", "X-Max",
                                          "X-Min", "X1",  "Flags", "",  "A b",   "Z"};
  const std::vector<std::string> values = {"", "1", "two words", " spaced ", "a: b"};
  for (int round = 0; round < 300; ++round) {
    std::string header = "MSG /r QEL/2.1\r\n";
    FieldList expected = NewFieldList();
    bool ok = true;
    for (int i = static_cast<int>(rng() % 100); i > 0; --i) {
      const std::string &name = names[rng() % names.size()], &value = values[rng() % values.size()];
      header += name + ": " + value + "\r\n";
      try {
        if (ok) SetField(expected, name, Variant(value));
      } catch (const QelError&) {
        ok = false;
      }
    }
    typMessage m = Parsed(header + "\r\n", ok);
    if (ok) {
      ASSERT_EQ(m.Fields, expected) << header;
    }
  }
}

TEST(MessageFieldTextTest, FlagsMatchAWordAndLengthsAreBlanksSignAndDigits) {
  typMessage m = NewMessage();
  SetField(m.Fields, "Flags", "ke,z,");
  // "E" matches: a plain substring test, kept as other nodes do it.
  for (const char* flag : {"KE", "z", "E"}) EXPECT_TRUE(HasFlag(m, flag)) << flag;
  for (const char* flag : {"C", "K"}) EXPECT_FALSE(HasFlag(m, flag)) << flag;

  for (auto [text, length] : {std::pair{" 12 ", 12LL},
                              {"+7", 7LL},
                              {"-5", -5LL},
                              {"99999999999999999999", INT64_MAX},
                              {"-99999999999999999999", INT64_MIN}}) {
    EXPECT_EQ(ParseLength(text), length) << text;
  }
  for (const char* bad : {"", " ", "12abc", "+-1", "0x10", "1 2", "++1"}) {
    EXPECT_EQ(ParseLength(bad), std::nullopt) << bad;
  }
}

std::string Decoded(const std::string& path) {
  bool failed = true;
  std::string out = DecodePath(path, &failed);
  return failed ? "<failed>" : out;
}

// The decoder as other nodes run it, one whole-string replace per pass,
// against the in-place one on strings dense in escapes and "%25" chains.
TEST(PathDecodeTest, MatchesTheWholeStringReplaceOnRandomInput) {
  auto slow = [](std::string path) {
    for (size_t p; (p = path.find('%')) != std::string::npos && p + 2 < path.size();) {
      if (!std::isxdigit(static_cast<unsigned char>(path[p + 1])) ||
          !std::isxdigit(static_cast<unsigned char>(path[p + 2])))
        return std::string("<failed>");
      const std::string escape = path.substr(p, 3);
      const char code = static_cast<char>(std::stoi(escape.substr(1), nullptr, 16));
      for (size_t at = p; (at = path.find(escape, at)) != std::string::npos; ++at)
        path.replace(at, 3, 1, code);
    }
    std::replace(path.begin(), path.end(), '/', '\\');
    return path;
  };
  std::mt19937 rng(20240611);
  const std::string alphabet = "%%%2255411aA/x";
  for (int round = 0; round < 20000; ++round) {
    std::string path(rng() % 24, ' ');
    for (char& c : path) c = alphabet[rng() % alphabet.size()];
    ASSERT_EQ(Decoded(path), slow(path)) << path;
  }
}

TEST(PathDecodeTest, HostileNestingStaysCheapAndFailuresReadEmpty) {
  EXPECT_EQ(DecodePath("%g0"), "");
  std::string chain = "%";
  for (int i = 0; i < 30000; ++i) chain += "25";
  EXPECT_EQ(Decoded(chain + "41/"), "A\\");

  // Each "%41" is made anew by the "%25" pass before it: one more pass per
  // escape, past the number any real path needs.
  std::string recurring;
  for (int depth = 0; depth < 520; ++depth) {
    recurring += "%";
    for (int i = 0; i < depth; ++i) recurring += "25";
    recurring += "41";
  }
  EXPECT_EQ(Decoded(recurring), "<failed>");
  EXPECT_EQ(Decoded(recurring.substr(0, 20000)).substr(0, 3), "AAA");
}

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
