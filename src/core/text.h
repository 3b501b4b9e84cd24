// Byte-string helpers shared by the subsystems. Case folding is ASCII only:
// text is bytes, and other bytes compare as they are.
#pragma once

#include <string>
#include <string_view>

namespace qel {

inline char AsciiUpper(char c) {
  return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c;
}
inline char AsciiLower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
}

inline bool EqualsNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (AsciiUpper(a[i]) != AsciiUpper(b[i])) return false;
  }
  return true;
}

inline std::string ToUpper(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = AsciiUpper(c);
  return out;
}

// Position of needle in haystack at or after from, ignoring case; npos if absent.
inline size_t FindNoCase(std::string_view haystack, std::string_view needle, size_t from = 0) {
  if (needle.empty()) return from <= haystack.size() ? from : std::string_view::npos;
  if (haystack.size() < needle.size()) return std::string_view::npos;
  const char first = AsciiUpper(needle[0]);
  for (size_t i = from; i + needle.size() <= haystack.size(); ++i) {
    if (AsciiUpper(haystack[i]) != first) continue;
    if (EqualsNoCase(haystack.substr(i, needle.size()), needle)) return i;
  }
  return std::string_view::npos;
}

// Blanks (spaces only, as the classic Trim) removed from both ends.
inline std::string_view Trim(std::string_view text) {
  size_t begin = text.find_first_not_of(' ');
  if (begin == std::string_view::npos) return {};
  size_t end = text.find_last_not_of(' ');
  return text.substr(begin, end - begin + 1);
}

}  // namespace qel
