#include "files/like.h"

#include <string>

namespace qel {

namespace {

unsigned char Byte(char c) {
  return static_cast<unsigned char>(c);
}

}  // namespace

LikePattern::LikePattern(std::string_view pattern) {
  for (size_t i = 0; i < pattern.size(); ++i) {
    Token token;
    const char c = pattern[i];
    if (c == '*') {
      // Runs of "*" match what one does.
      if (!tokens_.empty() && tokens_.back().star) continue;
      token.star = true;
    } else if (c == '?') {
      token.accepts.set();
    } else if (c == '#') {
      for (char d = '0'; d <= '9'; ++d) token.accepts.set(Byte(d));
    } else if (c == '[' && pattern.find(']', i + 1) != std::string_view::npos) {
      size_t close = pattern.find(']', i + 1);
      std::string_view list = pattern.substr(i + 1, close - i - 1);
      i = close;
      if (list.empty()) continue;
      const bool negate = list.front() == '!';
      if (negate) list.remove_prefix(1);
      for (size_t k = 0; k < list.size(); ++k) {
        if (k + 2 < list.size() && list[k + 1] == '-') {
          for (int b = Byte(list[k]); b <= Byte(list[k + 2]); ++b) token.accepts.set(b);
          k += 2;
        } else {
          token.accepts.set(Byte(list[k]));
        }
      }
      if (negate) token.accepts.flip();
    } else {
      token.accepts.set(Byte(c));
    }
    tokens_.push_back(token);
  }
}

bool LikePattern::Matches(std::string_view text) const {
  // Greedy with a return to the last "*": quadratic at worst, never
  // exponential, whatever the pattern.
  size_t t = 0;
  size_t p = 0;
  size_t afterStar = std::string::npos;
  size_t starText = 0;
  while (t < text.size()) {
    if (p < tokens_.size() && tokens_[p].star) {
      afterStar = ++p;
      starText = t;
    } else if (p < tokens_.size() && tokens_[p].accepts.test(Byte(text[t]))) {
      ++p;
      ++t;
    } else if (afterStar != std::string::npos) {
      p = afterStar;
      t = ++starText;
    } else {
      return false;
    }
  }
  while (p < tokens_.size() && tokens_[p].star) ++p;
  return p == tokens_.size();
}

}  // namespace qel
