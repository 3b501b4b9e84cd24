// Paths as other nodes send them: %-escaped, with either kind of separator.
#pragma once

#include <string>

namespace qel {

// Undoes %-escapes and turns every "/" into "\". The first "%" in the text is
// decoded and every copy of that escape in the whole text with it; then the
// search starts again from the beginning, so an escaped "%" is decoded once
// more ("%2541" gives "A"). A "%" followed by fewer than two characters stays.
// When the two characters after the first "%" are not hexadecimal digits the
// path cannot be decoded: the result is "" and *failed (when given) is set,
// and the caller reports it. Pure; safe on any input, linear in its length
// times the number of distinct escapes.
std::string DecodePath(std::string path, bool* failed = nullptr);

}  // namespace qel
