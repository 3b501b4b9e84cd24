// What the reference peers do to a body when compression and encryption are
// on, matching the nodes' work: XOR with a key, then zlib at level 9.
#pragma once

#include <string>
#include <string_view>

namespace qelbench {

// The encrypted and compressed text, after its original length (4 bytes,
// host order).
std::string Seal(std::string_view text, std::string_view key);

// Undoes Seal; empty when the data does not inflate.
std::string Open(std::string_view sealed, std::string_view key);

}  // namespace qelbench
