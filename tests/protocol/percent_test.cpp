#include "protocol/percent.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <random>

namespace qel {
namespace {

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

}  // namespace
}  // namespace qel
