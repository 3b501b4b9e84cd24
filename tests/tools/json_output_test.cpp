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

// What the console wrote before it escaped by itself.
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

TEST(JsonOutputTest, EscapesControlBytesQuoteAndBackslash) {
  EXPECT_EQ(EventLine({{"s", Text(std::string("\0\x01\x1f\x7f", 4))}}),
            "{\"event\":\"E\",\"s\":\"\\u0000\\u0001\\u001f\x7f\"}\n");
  EXPECT_EQ(EventLine({{"s", "\b\t\n\f\r\"\\/"}}),
            "{\"event\":\"E\",\"s\":\"\\b\\t\\n\\f\\r\\\"\\\\/\"}\n");
  const Json all = {{"s", Text(AllBytes())}, {"key\x01\"", Text("\xe9")}};
  EXPECT_EQ(EventLine(all), DumpedLine(all));
}

TEST(JsonOutputTest, EveryKindOfValueIsWrittenAsDumpWritesIt) {
  const Json fields = {
      {"int", -42},
      {"unsigned", 18446744073709551615ull},
      {"double", 0.1},
      {"big", 1e300},
      {"bool", true},
      {"null", nullptr},
      {"empty", Json::object()},
      {"none", Json::array()},
      {"nested", {{"a", {1, "x\ty", {{"b", false}}}}, {"c", Json::array({Json::object()})}}},
  };
  EXPECT_EQ(EventLine(fields), DumpedLine(fields));

  std::ostringstream out;
  auto output = MakeJsonOutput(out);
  output->Result("get\x01", {.ok = false, .value = {1, "\x02"}, .error = "bad \"\xfc\""});
  output->Result("ping", {.value = 7});
  Json failed = {{"command", "get\x01"}, {"ok", false}, {"value", {1, "\x02"}}};
  failed["error"] = Latin1ToUtf8("bad \"\xfc\"");
  Json done = {{"command", "ping"}, {"ok", true}, {"value", 7}};
  EXPECT_EQ(out.str(), failed.dump() + "\n" + done.dump() + "\n");
}

TEST(JsonOutputTest, LargeMixedTextIsWrittenWhole) {
  std::string text;
  for (int i = 0; text.size() < (4u << 20); ++i) {
    text += AllBytes();
    text.append(static_cast<size_t>(i % 5000), i % 2 ? '\0' : 'a');
  }
  const Json fields = {{"strMessage", Text(text)}};
  EXPECT_EQ(EventLine(fields), DumpedLine(fields));
}

TEST(JsonOutputTest, InvalidUtf8ThrowsAsBefore) {
  // Strings reach the console through Text(); raw bytes are a caller's bug
  // and stay json's error, with nothing written.
  for (const char* bad : {"\xff", "a\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82"}) {
    std::ostringstream out;
    EXPECT_THROW(MakeJsonOutput(out)->Event("E", {{"s", bad}}), Json::type_error) << bad;
    EXPECT_EQ(out.str(), "");
  }
  const Json fine = {{"s", "\xc2\x80\xe0\xa0\x80\xed\x9f\xbf\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"}};
  EXPECT_EQ(EventLine(fine), DumpedLine(fine));
}

TEST(JsonOutputTest, Latin1BytesBecomeTheirCodePoints) {
  const std::string utf8 = Latin1ToUtf8(AllBytes());
  ASSERT_EQ(utf8.size(), 128u + 2 * 128u);
  EXPECT_EQ(utf8.substr(0, 128), AllBytes().substr(0, 128));
  EXPECT_EQ(utf8.substr(128, 4), "\xc2\x80\xc2\x81");
  EXPECT_EQ(utf8.substr(utf8.size() - 2), "\xc3\xbf");
}

}  // namespace
}  // namespace qelcli
