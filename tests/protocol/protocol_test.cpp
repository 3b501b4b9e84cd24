// Messages as peers write them: header fields, framing, parsing, the
// resource path and bodies.
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cctype>
#include <random>

#include "../support/error_text.h"
#include "protocol/body.h"
#include "protocol/feeder.h"
#include "protocol/fields.h"
#include "protocol/message.h"
#include "protocol/percent.h"

namespace qel::test {
namespace {

// What f throws; a refused call leaves the list as it was.
std::string Refused(FieldList& fields, const std::function<void()>& f) {
  const FieldList before = fields;
  const std::string error = ErrorText(f);
  EXPECT_EQ(fields, before);
  return error;
}

std::string NewLineFrom(const char* source) {
  return std::string("-2147220991 ") + source +
         ": New line characters not allowed in header fields";
}

// A list of "Name=Value" fields in that order.
FieldList List(std::initializer_list<std::string> fields) {
  FieldList list = NewFieldList();
  for (const std::string& f : fields)
    AddSingleField(list, f.substr(0, f.find('=')), f.substr(f.find('=') + 1));
  return list;
}

StringArray ArrayOf(const FieldList& fields, std::string_view name) {
  return std::get<StringArray>(GetField(fields, name));
}

TEST(FieldErrorTest, FailuresCarryTheirNumberAndLeaveTheListAlone) {
  FieldList fields = NewFieldList();
  AddSingleField(fields, "A", "x\ny");  // only the CR LF pair is refused
  AddSingleField(fields, "B", "x\r");
  AddField(fields, "R", StringArray{0, {"a"}});
  const std::string array = "-2147220990 SetField: Cannot update string array field";
  const StringArray crlf{0, {"a", "b\r\n"}}, one{0, {"b"}}, low{-32769, {"a"}},
      high{32767, {"a", "b"}};
  const std::vector<std::pair<std::function<void()>, std::string>> cases = {
      {[&] { AddSingleField(fields, "C", "1\r\n2"); }, NewLineFrom("AddSingleField")},
      {[&] { SetField(fields, "A", "\r\n"); }, NewLineFrom("SetField")},
      {[&] { SetField(fields, "New", "\r\n"); }, NewLineFrom("AddSingleField")},
      // The pair may form where the old text meets the appended one.
      {[&] { AppendField(fields, "B", "\nz", ","); }, NewLineFrom("SetField")},
      {[&] { AddField(fields, "S", crlf); }, NewLineFrom("AddSingleField")},
      {[&] { SetField(fields, "A", one); }, array},
      {[&] { SetField(fields, "r", "b"); }, array},
      {[&] { AppendField(fields, "R", "b", ","); }, array},
      {[&] { AddField(fields, "S", low); }, "6 AddField: Overflow"},
      {[&] { AddField(fields, "S", high); }, "6 AddField: Overflow"},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    EXPECT_EQ(Refused(fields, cases[i].first), cases[i].second) << i;
  }
}

TEST(FieldArrayTest, RoundTripKeepsBoundsElementsAndFieldOrder) {
  FieldList fields = NewFieldList();
  SetField(fields, "Results", StringArray{0, {"a", "", "c"}});
  EXPECT_EQ(fields,
            List({"Results-Min=0", "Results-Max=2", "Results0=a", "Results1=", "Results2=c"}));
  for (StringArray array :
       {StringArray{5, {"x", "y\n"}}, StringArray{-2, {"m", "\r", "o"}}, StringArray{7, {}},
        StringArray{-32768, {"lo"}}, StringArray{32767, {"hi"}}}) {
    SCOPED_TRACE(array.Lower);
    FieldList list = NewFieldList();
    AddField(list, "R", array);
    EXPECT_EQ(GetSingleField(list, "R-Max"), std::to_string(array.Upper()));
    EXPECT_EQ(ArrayOf(list, "r"), array);
  }
  // Elements are found by the exact name AddField writes: no padding, no "-0".
  EXPECT_EQ(ArrayOf(List({"R-Min=-1", "R-Max=2", "r1=first", "R1=second", "R01=pad", "R-0=sign",
                          "R-1=m"}),
                    "R"),
            (StringArray{-1, {"m", "", "first", ""}}));
}

TEST(FieldArrayTest, BoundsFromAPeerAreCheckedBeforeAllocating) {
  for (auto [min, max, error] :
       {std::tuple{"0", "many", "13 GetField: Type mismatch"},
        {"", "3", "13 GetField: Type mismatch"},
        {"0", "99999999999", "6 GetField: Overflow"},
        {"0", "65536", "9 GetField: Subscript out of range"},
        {"-2147483648", "2147483647", "9 GetField: Subscript out of range"},
        {"5", "3", "9 GetField: Subscript out of range"},
        {"-32768", "32767", "no error"}}) {
    FieldList fields = NewFieldList();
    if (*min) AddSingleField(fields, "R-Min", min);
    AddSingleField(fields, "R-Max", max);
    EXPECT_EQ(Refused(fields, [&] { GetField(fields, "R"); }), error) << min << " " << max;
  }
}

TEST(FieldSetTest, SetReplacesTheFirstMatchUnlessItIsEmptyAndAppendGrowsIt) {
  FieldList fields = List({"id=", "Flags=a,"});
  SetField(fields, "ID", "1");  // an empty value counts as absent: appended behind
  SetField(fields, "iD", "2");
  SetField(fields, "flags", "b,");  // replaced in place, name as it was
  AppendField(fields, "FLAGS", "c", ",");
  AppendField(fields, "id", "z", ",");
  AppendField(fields, "Route", "S", ",");
  EXPECT_EQ(fields, List({"id=", "Flags=b,c,", "ID=1", "iD=2", "id=z,", "Route=S,"}));
}

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
  auto chain = [](int n) {  // "%" with n "25"s behind it
    std::string text = "%";
    while (n-- > 0) text += "25";
    return text;
  };
  EXPECT_EQ(DecodePath("%g0"), "");
  EXPECT_EQ(Decoded(chain(30000) + "41/"), "A\\");
  // Each "%41" is made anew by the "%25" pass before it: one more pass per
  // escape, past the number any real path needs.
  std::string recurring;
  for (int depth = 0; depth < 520; ++depth) recurring += chain(depth) + "41";
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

// Cuts as a connection does: messages that arrive whole in the plain form
// come as bytes and must unpack to what the parser gives.
struct Collector {
  explicit Collector(size_t maxHeader = 65536, int64_t maxMessage = 67108864)
      : feeder({maxHeader, maxMessage, true}) {}
  MessageFeeder feeder;
  std::vector<std::string> got;
  Outcome Feed(std::string_view data) {
    return feeder.Feed(data, [this](typMessage&& m) {
      Unpack(m);
      got.push_back(Summary(m));
    });
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
                             "MSG  QEL/2.1\r\nContent-Length: 2abc\r\n\r\n" +
                             "msg  QEL/2.1\r\nTTL: 5\r\nttl: 7\r\n\r\n";
  const std::vector<std::string> expected = {
      "MSG||ID=1;Content-Length=9;|bod\xFF\r\n\r\n!", "PING||ID=2;|",
      "GET|\\a b|Content-Length=3;|xyz", "MSG||Content-Length=-5;|", "MSG||Content-Length=2abc;|",
      "MSG||TTL=7;|"};
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

// A link relays a message kept as bytes exactly as it came, so the feeder may
// keep one only when parsing it and writing it out gives the same bytes, and
// its index must point at the values the parser finds.
TEST(FeederTest, KeepsBytesOnlyWhenWritingThemOutAgainGivesThemBack) {
  std::mt19937 rng(20261126);
  const std::vector<std::string> starts = {"MSG  QEL/2.1", "msg  QEL/2.1", "MSG /r QEL/2.1",
                                           "MSG  QEL/2.0", "  QEL/2.1",    "PING  QEL/2.1 "};
  const std::vector<std::string> lines = {"ID: 1",
                                          "id: 2",
                                          "TTL: 5",
                                          "Ttl: 6",
                                          "Hops: 1",
                                          "Route: a,b,",
                                          "Source: S",
                                          "Destination: D",
                                          "Type: ",
                                          "Flags: Z,",
                                          "X-Max: 3",
                                          "Type-max: 1",
                                          "Name: v: w",
                                          "A:b: c",
                                          ": empty",
                                          "Lone\nLF: x",
                                          "NoSeparator",
                                          "Other: 1",
                                          "oTHER: 2",
                                          "Content-Length: 3",
                                          "content-length: +3",
                                          "Content-Length: 0"};
  const std::vector<std::pair<WireSpan WireIndex::*, std::string>> indexed = {
      {&WireIndex::id, "ID"},
      {&WireIndex::ttl, "TTL"},
      {&WireIndex::hops, "Hops"},
      {&WireIndex::route, "Route"},
      {&WireIndex::source, "Source"},
      {&WireIndex::destination, "Destination"},
      {&WireIndex::type, "Type"},
      {&WireIndex::flags, "Flags"},
      {&WireIndex::contentLength, "Content-Length"}};
  int kept = 0;
  for (int round = 0; round < 3000; ++round) {
    std::string header = starts[rng() % 3 == 0 ? rng() % starts.size() : 0] + "\r\n";
    for (int i = static_cast<int>(rng() % 8); i > 0; --i)
      header += lines[rng() % lines.size()] + "\r\n";
    header += "\r\n";
    typMessage parsed;
    const bool parses = ParseHeader(parsed, header);
    const std::string* length = parses ? FindField(parsed.Fields, "Content-Length") : nullptr;
    const std::string body = length && ParseLength(*length) == 3 ? "abc" : "";
    std::vector<typMessage> got;
    MessageFeeder feeder({.keepPlainAsBytes = true});
    feeder.Feed(header + body + kPing, [&](typMessage&& m) { got.push_back(std::move(m)); });
    // The body's length is read as the parser reads it, so the next message
    // starts where it should.
    ASSERT_EQ(got.size(), parses ? 2u : 1u) << header;
    ASSERT_EQ(got.back().MsgType, "PING") << header;
    const typMessage& m = got.front();
    if (!parses || !m.Index.valid) continue;
    ++kept;
    std::string written;
    SerialiseHeader(parsed, written);
    ASSERT_EQ(written, header);
    ASSERT_EQ(m.Index.headerSize, header.size());
    for (const auto& [span, name] : indexed) {
      const std::string* value = FindField(parsed.Fields, name);
      ASSERT_EQ((m.Index.*span).found, value != nullptr) << name << " in " << header;
      if (value) {
        ASSERT_EQ((m.Index.*span).In(m.Wire), *value) << header;
      }
    }
  }
  EXPECT_GT(kept, 300);
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

// A reader that offers every read the room the feeder gives, as a socket
// does, in reads of random size: the messages must be those of one Feed.
TEST(FeederTest, BodiesReadIntoTheirRoomInPiecesOfAnySizeAreWhole) {
  std::mt19937 rng(20251124);
  auto body = [&](size_t n) {
    std::string out(n, '\0');
    for (char& c : out) c = static_cast<char>(rng());
    out.replace(n / 2, 4, "\r\n\r\n");  // a terminator inside is only body
    return out;
  };
  auto msg = [](const std::string& b) {
    return "MSG  QEL/2.1\r\nContent-Length: " + std::to_string(b.size()) + "\r\n\r\n" + b;
  };
  // Past one growth step, just at the threshold, just below it, and small.
  const std::string stream = msg(body(MessageFeeder::kBodyStep * 2 + 12345)) + kPing +
                             msg(body(MessageFeeder::kDirectBody)) +
                             msg(body(MessageFeeder::kDirectBody - 1)) + msg(body(300000)) +
                             msg("tail");
  Collector whole;
  whole.Feed(stream);
  ASSERT_EQ(whole.got.size(), 6u);

  for (int round = 0; round < 20; ++round) {
    const unsigned seed = rng();
    std::mt19937 cut(seed);
    Collector split;
    size_t direct = 0;
    for (std::string_view rest = stream; !rest.empty();) {
      const size_t want = std::min<size_t>(rest.size(), 1 + cut() % 200000);
      const std::span<char> room = split.feeder.BodyRoom();
      // A room ends with its body and grows by a step at most.
      ASSERT_LE(room.size(), MessageFeeder::kBodyStep);
      ASSERT_LE(split.feeder.BufferedBytes(), 3 * MessageFeeder::kBodyStep);
      if (room.empty() || cut() % 4 == 0) {  // a room may also go unused
        ASSERT_EQ(split.Feed(rest.substr(0, want)), Outcome::Ok);
        rest.remove_prefix(want);
        continue;
      }
      const size_t n = std::min(want, room.size());
      std::copy_n(rest.data(), n, room.data());
      rest.remove_prefix(n);
      direct += n;
      split.feeder.FeedDirect(n, [&](typMessage&& m) {
        Unpack(m);
        split.got.push_back(Summary(m));
      });
    }
    ASSERT_EQ(split.got, whole.got) << "seed " << seed;
    EXPECT_GT(direct, stream.size() / 2) << "seed " << seed;
  }

  // A claim is not an allocation: only what arrived, plus one step.
  MessageFeeder claim;
  claim.Feed("MSG  QEL/2.1\r\nContent-Length: 60000000\r\n\r\n", [](typMessage&&) {});
  EXPECT_EQ(claim.BodyRoom().size(), MessageFeeder::kBodyStep);
  EXPECT_LE(claim.BufferedBytes(), MessageFeeder::kBodyStep + 4096);
  claim.Reset();
  EXPECT_TRUE(claim.BodyRoom().empty());
}

std::string Bytes(size_t n) {
  std::string out(n, '\0');
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<char>(i * 37 + 11);
  return out;
}

const std::string kNoKey = "9 EncryptBody: Subscript out of range";

TEST(BodyCipherTest, MatchesByteByByteXorOnEveryLength) {
  for (std::string key :
       {"k", "ab", "abc", "seven!!", "8bytekey", "nine-byte", "a longer pass phrase"}) {
    key[0] = '\xF3';  // high bytes must survive the word path too
    for (size_t n = 0; n <= 100; ++n) {
      std::string data = Bytes(n);
      std::string expected = data;
      for (size_t i = 0; i < n; ++i) expected[i] ^= key[i % key.size()];
      EncryptBody(data, key);
      ASSERT_EQ(data, expected) << "key " << key.size() << " length " << n;
    }
  }
  std::string data = "x";
  EXPECT_EQ(ErrorText([&] { EncryptBody(data, ""); }), kNoKey);
  EXPECT_EQ(data, "x");
}

TEST(BodyZlibTest, RoundTripsAndRefusesBadInput) {
  for (size_t n : {0, 1, 200000}) {
    std::string data = Bytes(n);
    CompressBody(data);
    ASSERT_EQ(UncompressBody(data, static_cast<int64_t>(n), 1 << 20), DecodeResult::Ok);
    EXPECT_EQ(data, Bytes(n));
  }

  std::string packed = Bytes(1000);
  CompressBody(packed);
  const std::string received = packed;
  EXPECT_EQ(UncompressBody(packed, 1001, 1000), DecodeResult::TooLarge);
  EXPECT_EQ(UncompressBody(packed, -1, 1000), DecodeResult::TooLarge);
  // Output beyond the announced length is refused, even by one byte.
  EXPECT_EQ(UncompressBody(packed, 999, 1000), DecodeResult::Corrupt);
  EXPECT_EQ(packed, received);
  packed.resize(packed.size() / 2);
  EXPECT_EQ(UncompressBody(packed, 1000, 1000), DecodeResult::Corrupt);
  packed = received;
  EXPECT_EQ(UncompressBody(packed, 1000, 1000), DecodeResult::Ok);
}

// Bodies are packed by libdeflate, so their bytes need not be those of
// zlib's compress2; what other nodes rely on is that plain zlib inflates them.
TEST(BodyZlibTest, EncodedBodiesInflateWithPlainZlib) {
  std::mt19937_64 random(11);
  std::string noise(1 << 20, '\0');
  for (char& c : noise) c = static_cast<char>(random());
  std::string repeated;
  while (repeated.size() < (1 << 20)) repeated += "abcabcabd0123 ";
  for (const std::string& body : {std::string("q"), Bytes(100), noise, repeated}) {
    typMessage m = NewMessage();
    m.Body = body;
    EncodeBody(m, {.useComp = true});
    EXPECT_EQ(GetSingleField(m.Fields, "Original-Length"), std::to_string(body.size()));
    std::string out(body.size(), '\0');
    uLongf length = static_cast<uLongf>(out.size());
    ASSERT_EQ(uncompress(reinterpret_cast<Bytef*>(out.data()), &length,
                         reinterpret_cast<const Bytef*>(m.Body.data()), m.Body.size()),
              Z_OK)
        << body.size() << " bytes";
    EXPECT_EQ(length, body.size());
    EXPECT_TRUE(out == body) << body.size() << " bytes";
  }
}

TEST(BodyCodecTest, EncryptsBeforeCompressingAndDecodeUndoesEveryEncoding) {
  for (const std::string flags : {"", "NE,", "KE,", "Z,", "NE,Z,", "KE,Z,"}) {
    const bool useComp = flags.ends_with("Z,");
    typMessage m = NewMessage();
    m.Body = "a";  // one byte is still transformed
    EncodeBody(m, {flags.find('E') != std::string::npos, flags.starts_with("K") ? "OWNKEY" : "",
                   "netpass", useComp});
    EXPECT_EQ(GetSingleField(m.Fields, "Flags"), flags);
    EXPECT_EQ(GetSingleField(m.Fields, "Content-Length"), std::to_string(m.Body.size()));
    EXPECT_EQ(GetSingleField(m.Fields, "Original-Length"), useComp ? "1" : "");
    EXPECT_EQ(DecodeBody(m, "netpass", "OWNKEY", 100).compressed, useComp);
    EXPECT_EQ(m.Body, "a") << flags;
  }

  typMessage m = NewMessage();
  m.Body = "hello world";
  EncodeBody(m, {true, "", "netpass", true});
  const std::string received = m.Body;
  std::string plain = received;
  ASSERT_EQ(UncompressBody(plain, 11, 100), DecodeResult::Ok);
  EncryptBody(plain, "netpass");
  EXPECT_EQ(plain, "hello world");
  // A failed decode keeps the body as it came.
  SetField(m.Fields, "Original-Length", "eleven");
  EXPECT_EQ(DecodeBody(m, "netpass", "k", 100).result, DecodeResult::Corrupt);
  SetField(m.Fields, "Original-Length", "500");
  EXPECT_EQ(DecodeBody(m, "netpass", "k", 100).result, DecodeResult::TooLarge);
  EXPECT_EQ(ErrorText([&] { DecodeBody(m, "", "k", 100); }), kNoKey);
  EXPECT_EQ(m.Body, received);
}

}  // namespace
}  // namespace qel::test
