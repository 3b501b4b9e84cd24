#include "files/ranges.h"

#include <algorithm>
#include <charconv>

#include "core/text.h"

namespace qel {

namespace {

// Digits only, up to kMaxRangeNumber; "" is a missing number.
std::optional<int64_t> ReadNumber(std::string_view text) {
  if (text.empty()) return -1;
  if (text.front() < '0' || text.front() > '9') return std::nullopt;
  int64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value > kMaxRangeNumber) {
    return std::nullopt;
  }
  return value;
}

std::optional<typQELRange> ReadPart(std::string_view part) {
  part = Trim(part);
  const size_t dash = part.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  std::string_view end = part.substr(dash + 1);
  std::string_view len;
  if (size_t slash = end.find('/'); slash != std::string_view::npos) {
    len = end.substr(slash + 1);
    end = end.substr(0, slash);
  }
  std::optional<int64_t> s = ReadNumber(part.substr(0, dash));
  std::optional<int64_t> e = ReadNumber(end);
  std::optional<int64_t> l = ReadNumber(len);
  if (!s || !e || !l) return std::nullopt;
  return MakeRange(*s, *e, *l);
}

}  // namespace

typQELRange MakeRange(int64_t start, int64_t end, int64_t len) {
  return {start, end, len, start == -1 && end == -1 && len == -1};
}

std::string RangeText(const typQELRange& range) {
  if (range.lngStart >= 0 && range.lngEnd >= 0) {
    return std::to_string(range.lngStart) + "-" + std::to_string(range.lngEnd);
  }
  if (range.lngStart >= 0) return std::to_string(range.lngStart) + "-";
  if (range.lngEnd >= 0) return "-" + std::to_string(range.lngEnd);
  return "";
}

std::optional<std::vector<typQELRange>> ParseRanges(std::string_view text) {
  std::vector<typQELRange> ranges;
  if (text.empty()) return ranges;
  // Counted before anything is kept, so a long header costs no memory.
  if (static_cast<size_t>(std::count(text.begin(), text.end(), ',')) >= kMaxRangeParts) {
    return std::nullopt;
  }
  for (size_t begin = 0; begin <= text.size();) {
    size_t comma = std::min(text.find(',', begin), text.size());
    std::optional<typQELRange> range = ReadPart(text.substr(begin, comma - begin));
    if (!range) return std::nullopt;
    ranges.push_back(*range);
    begin = comma + 1;
  }
  return ranges;
}

std::optional<ByteSpan> ServedSpan(const typQELRange& range, int64_t fileSize) {
  const int64_t start = range.lngStart;
  const int64_t end = range.lngEnd;
  if (start < 0 && end < 0) return ByteSpan{0, fileSize - 1};
  if (start < 0) {
    if (end == 0 || fileSize == 0) return std::nullopt;
    return ByteSpan{std::max<int64_t>(0, fileSize - end), fileSize - 1};
  }
  if (start >= fileSize || (end >= 0 && end < start)) return std::nullopt;
  return ByteSpan{start, end < 0 ? fileSize - 1 : std::min(end, fileSize - 1)};
}

std::string ContentRangeText(int64_t first, int64_t last, int64_t size) {
  return std::to_string(first) + "-" + std::to_string(last) + "/" + std::to_string(size);
}

}  // namespace qel
