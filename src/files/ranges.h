// Byte ranges of file transfers: how a requester writes them, how a server
// reads them and which bytes it then sends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <qel/types.h>

namespace qel {

// A range; -1 leaves a number out, and the range is empty when all three are.
typQELRange MakeRange(int64_t start = -1, int64_t end = -1, int64_t len = -1);

// "start-end", "start-" (to the end of the file) or "-end" (the last end
// bytes); "" for a range with neither start nor end. Negative numbers count
// as left out.
std::string RangeText(const typQELRange& range);

// More parts than this make a range text malformed.
inline constexpr size_t kMaxRangeParts = 64;

// The largest number a range text may hold. Half of what 64 bits hold, so
// that what is done with a peer's offsets (an end plus one, an offset plus
// a piece's length, the difference of two) cannot overflow; it is still
// millions of terabytes.
inline constexpr int64_t kMaxRangeNumber = INT64_MAX / 2;

// Reads a range text: parts separated by ",", each an optional start, "-",
// an optional end and optionally "/" and the file's total length, blanks
// around a part allowed. Numbers are decimal digits up to kMaxRangeNumber;
// a missing one is -1 (so "-" alone is an empty range). "" gives no ranges.
// nullopt when any part is malformed (no "-", a sign, other characters, a
// number too large, an empty part) or there are more than kMaxRangeParts:
// the server then cancels the transfer instead of guessing.
std::optional<std::vector<typQELRange>> ParseRanges(std::string_view text);

// 0-based offsets of the first and last byte to send; last is first - 1
// when there are none.
struct ByteSpan {
  int64_t first = 0;
  int64_t last = -1;
};

// The bytes of a file of fileSize bytes a range asks for: "start-end" ends
// at the file's last byte at most, "start-" runs to the end, "-n" is the
// last n bytes (all of a shorter file), and a range with neither start nor
// end is the whole file, which may have no bytes. nullopt when the range
// asks for nothing the file has: a start past its end, an end before the
// start, "-0", or any explicit range of an empty file. Safe for any
// numbers a host puts in a range, negative ones counting as left out.
std::optional<ByteSpan> ServedSpan(const typQELRange& range, int64_t fileSize);

// "first-last/size", as the answer names the bytes it carries.
std::string ContentRangeText(int64_t first, int64_t last, int64_t size);

}  // namespace qel
