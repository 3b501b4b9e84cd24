#include "core/new_id.h"

#include <openssl/rand.h>

#include <cstring>

namespace qel {
namespace {

// Identifiers are drawn for every message sent, so random bytes are fetched
// in batches from OpenSSL's generator (seeded from OS entropy) rather than
// with a system call each.
class RandomPool {
 public:
  bool Take(uint8_t* out, size_t n) {
    if (used_ + n > sizeof buffer_) {
      if (RAND_bytes(buffer_, sizeof buffer_) != 1) return false;
      used_ = 0;
    }
    std::memcpy(out, buffer_ + used_, n);
    used_ += n;
    return true;
  }

 private:
  uint8_t buffer_[4096];
  size_t used_ = sizeof buffer_;
};

constexpr char kHex[] = "0123456789ABCDEF";

// Each byte's two hex digits, looked up instead of computed: an identifier is made for every
// message sent.
struct HexPairs {
  char pair[256][2];
  constexpr HexPairs() : pair() {
    for (int b = 0; b < 256; ++b) {
      pair[b][0] = kHex[b >> 4];
      pair[b][1] = kHex[b & 15];
    }
  }
};
constexpr HexPairs kPairs;

size_t FormatInto(const std::array<uint8_t, 16>& g, char (&text)[32]) {
  size_t n = 0;
  // Data1 to Data3 padded to 8, 4 and 4 digits: the first eight bytes in full.
  for (int i = 0; i < 8; ++i) {
    text[n++] = kPairs.pair[g[i]][0];
    text[n++] = kPairs.pair[g[i]][1];
  }
  for (int i = 8; i < 16; ++i) {
    const uint8_t b = g[i];
    // A lone hex letter is not numeric, so the "00" display format left it unpadded; other
    // nodes' identifiers have this shape.
    if (b >= 10 && b <= 15) {
      text[n++] = kHex[b];
    } else {
      text[n++] = kPairs.pair[b][0];
      text[n++] = kPairs.pair[b][1];
    }
  }
  return n;
}

}  // namespace

std::string FormatID(const std::array<uint8_t, 16>& guid) {
  char text[32];
  return std::string(text, FormatInto(guid, text));
}

size_t NewID(char (&out)[32]) {
  thread_local RandomPool pool;
  std::array<uint8_t, 16> guid;
  if (!pool.Take(guid.data(), guid.size())) return 0;
  // A version 4 GUID, as the OS generators make them.
  guid[6] = static_cast<uint8_t>((guid[6] & 0x0F) | 0x40);
  guid[8] = static_cast<uint8_t>((guid[8] & 0x3F) | 0x80);
  return FormatInto(guid, out);
}

std::string NewID() {
  char text[32];
  return std::string(text, NewID(text));
}

}  // namespace qel
