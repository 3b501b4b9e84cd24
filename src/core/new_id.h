// Identifiers for nodes, encryption keys and requests.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace qel {

// A fresh random GUID in upper-case hexadecimal with no separators: Data1
// padded to 8 characters, Data2 and Data3 to 4, then each byte of Data4 in
// one or two characters (bytes 10 to 15 are written as a single letter, as
// other nodes do), so identifiers are 24 to 32 characters long. Empty when no
// random bytes can be had.
std::string NewID();
// The same written into out, for a caller that needs it only for a while:
// no allocation. Its length; 0 when no random bytes can be had.
size_t NewID(char (&out)[32]);

// The text form of given GUID bytes (Data1..Data3 big-endian, then Data4).
std::string FormatID(const std::array<uint8_t, 16>& guid);

}  // namespace qel
