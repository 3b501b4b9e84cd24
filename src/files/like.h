// Wildcard patterns as the classic "Like" operator reads them, for searches.
#pragma once

#include <bitset>
#include <string_view>
#include <vector>

namespace qel {

// "*" any run of characters, "?" one character, "#" one digit, "[abc]" one
// of a list, "[a-z]" one of a range, "[!...]" one character not in the list.
// A "-" first or last in a list stands for itself; "[]" stands for no
// character at all; a range written backwards holds none; a "["
// without its "]" stands for itself. Compares bytes as they are: callers
// fold case first.
class LikePattern {
 public:
  explicit LikePattern(std::string_view pattern);
  bool Matches(std::string_view text) const;

 private:
  // A "*", or the set of bytes one position accepts.
  struct Token {
    bool star = false;
    std::bitset<256> accepts;
  };
  std::vector<Token> tokens_;
};

}  // namespace qel
