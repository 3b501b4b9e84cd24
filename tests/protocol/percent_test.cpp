#include "protocol/percent.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <random>

namespace qel {
namespace {

// The decoder as other nodes run it: one whole-string replace per pass.
std::string SlowDecode(std::string path, bool& failed) {
  failed = false;
  for (size_t p; (p = path.find('%')) != std::string::npos && p + 2 < path.size();) {
    if (!std::isxdigit(static_cast<unsigned char>(path[p + 1])) ||
        !std::isxdigit(static_cast<unsigned char>(path[p + 2]))) {
      failed = true;
      return {};
    }
    const std::string escape = path.substr(p, 3);
    const char code = static_cast<char>(std::stoi(escape.substr(1), nullptr, 16));
    std::string out;
    size_t at = 0;
    for (size_t hit; (hit = path.find(escape, at)) != std::string::npos; at = hit + 3) {
      out.append(path, at, hit - at).push_back(code);
    }
    path = out + path.substr(at);
  }
  std::replace(path.begin(), path.end(), '/', '\\');
  return path;
}

std::string Decoded(const std::string& path) {
  bool failed = true;
  std::string out = DecodePath(path, &failed);
  return failed ? "<failed>" : out;
}

TEST(PathDecodeTest, MatchesTheWholeStringReplaceOnRandomInput) {
  const uint32_t seed = 20240611;
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 rng(seed);
  const std::string alphabet = "%%%2255411aA/x";
  for (int round = 0; round < 20000; ++round) {
    std::string path(rng() % 24, ' ');
    for (char& c : path) c = alphabet[rng() % alphabet.size()];
    bool slowFailed = false, failed = false;
    const std::string expected = SlowDecode(path, slowFailed);
    ASSERT_EQ(DecodePath(path, &failed), expected) << path;
    ASSERT_EQ(failed, slowFailed) << path;
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
