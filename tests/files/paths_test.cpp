#include "files/paths.h"

#include <gtest/gtest.h>

#include <cctype>
#include <random>

namespace qel {
namespace {

// The decoder as other nodes run it: one whole-string replace per pass.
std::string SlowDecode(std::string path, bool& failed) {
  failed = false;
  for (size_t p; (p = path.find('%')) != std::string::npos && p + 2 < path.size();) {
    std::string escape = path.substr(p, 3);
    if (!std::isxdigit(static_cast<unsigned char>(escape[1])) ||
        !std::isxdigit(static_cast<unsigned char>(escape[2]))) {
      failed = true;
      return {};
    }
    const char code = static_cast<char>(std::stoi(escape.substr(1), nullptr, 16));
    std::string out;
    for (size_t at = 0, hit;
         (hit = path.find(escape, at)) != std::string::npos || at < path.size();) {
      if (hit == std::string::npos) hit = path.size();
      out.append(path, at, hit - at);
      if (hit == path.size()) break;
      out.push_back(code);
      at = hit + 3;
    }
    path = out;
  }
  for (char& c : path) {
    if (c == '/') c = '\\';
  }
  return path;
}

std::string Decoded(const std::string& path) {
  bool failed = true;
  std::string out = DecodePath(path, &failed);
  return failed ? "<failed>" : out;
}

TEST(PathDecodeTest, DecodesEscapesAgainFromTheStart) {
  EXPECT_EQ(Decoded("/my%20docs/a%2fb"), "\\my docs\\a\\b");
  EXPECT_EQ(Decoded("%2541"), "A");
  EXPECT_EQ(Decoded("%41x%41"), "AxA");
  // "%%41": the first "%" is followed by "%4", which is no number.
  EXPECT_EQ(Decoded("%%41"), "<failed>");
  EXPECT_EQ(Decoded("ok%4"), "ok%4");
  EXPECT_EQ(Decoded("%zz/x"), "<failed>");
  EXPECT_EQ(Decoded(""), "");
  EXPECT_EQ(DecodePath("%g0"), "");
}

TEST(PathDecodeTest, MatchesTheWholeStringReplaceOnRandomInput) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  const std::string alphabet = "%%%2255411aA/x";
  for (int round = 0; round < 20000; ++round) {
    std::string path(rng() % 24, ' ');
    for (char& c : path) c = alphabet[rng() % alphabet.size()];
    bool slowFailed = false;
    std::string expected = SlowDecode(path, slowFailed);
    bool failed = false;
    ASSERT_EQ(DecodePath(path, &failed), expected) << path;
    ASSERT_EQ(failed, slowFailed) << path;
  }
}

TEST(PathDecodeTest, HostileNestingStaysCheap) {
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

}  // namespace
}  // namespace qel
