// The console's JSON lines, checked against json's own dump() and against
// the escapes other programs read.
#include "output.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace qelcli {
namespace {

std::string EventLine(const Json& fields) {
  std::ostringstream out;
  MakeJsonOutput(out)->Event("E", fields);
  return out.str();
}

// What json's dump() writes for the same line.
std::string DumpedLine(const Json& fields) {
  Json line = {{"event", "E"}};
  line.update(fields);
  return line.dump() + "\n";
}

std::string AllBytes() {
  std::string bytes;
  for (int c = 0; c < 256; ++c) bytes += static_cast<char>(c);
  return bytes;
}

// Each byte as the code point of its number, in UTF-8.
std::string AsLatin1(std::string_view bytes) {
  std::string text;
  for (unsigned char c : bytes) {
    if (c >= 0x80) text += static_cast<char>(0xC0 | (c >> 6));
    text += static_cast<char>(c < 0x80 ? c : 0x80 | (c & 0x3F));
  }
  return text;
}

TEST(JsonOutputTest, EveryKindOfValueAndEscapeIsWrittenAsDumpWritesIt) {
  EXPECT_EQ(EventLine({{"s", std::string("\0\x01\x1f\x7f", 4)}}),
            "{\"event\":\"E\",\"s\":\"\\u0000\\u0001\\u001f\x7f\"}\n");
  EXPECT_EQ(EventLine({{"s", "\b\t\n\f\r\"\\/"}}),
            "{\"event\":\"E\",\"s\":\"\\b\\t\\n\\f\\r\\\"\\\\/\"}\n");
  const Json fields = {
      {"ascii", AllBytes().substr(0, 128)},
      {"key\x01\"", "x"},
      {"numbers", {-42, 18446744073709551615ull, 0.1, 1e300}},
      {"others", {true, nullptr, Json::object(), Json::array()}},
      {"nested", {{"a", {1, "x\ty", {{"b", false}}}}, {"c", Json::array({Json::object()})}}}};
  EXPECT_EQ(EventLine(fields), DumpedLine(fields));

  std::ostringstream out;
  auto output = MakeJsonOutput(out);
  output->Result("get\x01", {.ok = false, .value = {1, "\x02"}, .error = "bad"});
  output->Result("connect", {.value = true, .note = "dialled"});
  Json failed = {{"command", "get\x01"}, {"ok", false}, {"value", {1, "\x02"}}, {"error", "bad"}};
  Json noted = {{"command", "connect"}, {"ok", true}, {"value", true}, {"note", "dialled"}};
  EXPECT_EQ(out.str(), failed.dump() + "\n" + noted.dump() + "\n");
}

// UTF-8 is written as it is; anything else byte for byte as Latin-1, its key
// listed in its own object, so a reader knows which strings to map back.
TEST(JsonOutputTest, StringsThatAreNotUtf8AreLatin1AndListed) {
  const std::string utf8 = "\xc2\x80\xe0\xa0\x80\xed\x9f\xbf\xf0\x90\x80\x80\xf4\x8f\xbf\xbf";
  const Json fine = {{"s", utf8}, {"e", "caf\xc3\xa9"}};
  EXPECT_EQ(EventLine(fine), DumpedLine(fine));

  // Stray, overlong, surrogate, too large, cut off.
  for (std::string bad : {"\xff", "a\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82"}) {
    EXPECT_EQ(
        EventLine({{"strMessage", bad}, {"nodeID", "N"}}),
        DumpedLine({{"strMessage", AsLatin1(bad)}, {"nodeID", "N"}, {"latin1", {"strMessage"}}}))
        << bad;
  }

  // Records in an array each carry their own list; an array of strings is
  // listed under its own key.
  const Json records = {{"value",
                         {{{"ID", "A"}, {"Name", "\xe9t\xe9"}, {"Address", "x\xff"}},
                          {{"ID", "B"}, {"Name", "caf\xc3\xa9"}}}},
                        {"lines", {"ok", "\xfc"}}};
  const Json expected = {{"value",
                          {{{"ID", "A"},
                            {"Name", "\xc3\xa9t\xc3\xa9"},
                            {"Address", "x\xc3\xbf"},
                            {"latin1", {"Name", "Address"}}},
                           {{"ID", "B"}, {"Name", "caf\xc3\xa9"}}}},
                         {"lines", {"ok", "\xc3\xbc"}},
                         {"latin1", {"lines"}}};
  EXPECT_EQ(EventLine(records), DumpedLine(expected));
}

TEST(JsonOutputTest, LargeMixedTextIsWrittenWhole) {
  std::string text;
  for (int i = 0; text.size() < (4u << 20); ++i) {
    text += AllBytes();
    text.append(static_cast<size_t>(i % 5000), i % 2 ? '\0' : 'a');
  }
  EXPECT_EQ(EventLine({{"strMessage", text}}),
            DumpedLine({{"strMessage", AsLatin1(text)}, {"latin1", {"strMessage"}}}));
  const std::string utf8 =
      std::string((3 << 20) - 1, 'a') + "\xe2\x82\xac" + std::string(1 << 20, '\n');
  EXPECT_EQ(EventLine({{"strMessage", utf8}}), DumpedLine({{"strMessage", utf8}}));
}

}  // namespace
}  // namespace qelcli
