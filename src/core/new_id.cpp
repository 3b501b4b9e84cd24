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

void AppendPadded(std::string& out, uint32_t value, int width) {
  for (int shift = (width - 1) * 4; shift >= 0; shift -= 4)
    out.push_back(kHex[(value >> shift) & 15]);
}

}  // namespace

std::string FormatID(const std::array<uint8_t, 16>& g) {
  std::string id;
  id.reserve(32);
  AppendPadded(id, (uint32_t{g[0]} << 24) | (uint32_t{g[1]} << 16) | (uint32_t{g[2]} << 8) | g[3],
               8);
  AppendPadded(id, (uint32_t{g[4]} << 8) | g[5], 4);
  AppendPadded(id, (uint32_t{g[6]} << 8) | g[7], 4);
  for (int i = 8; i < 16; ++i) {
    uint8_t b = g[i];
    if (b >= 10 && b <= 15) {
      // A lone hex letter is not numeric, so the "00" display format left it
      // unpadded; other nodes' identifiers have this shape.
      id.push_back(kHex[b]);
    } else {
      id.push_back(kHex[b >> 4]);
      id.push_back(kHex[b & 15]);
    }
  }
  return id;
}

std::string NewID() {
  thread_local RandomPool pool;
  std::array<uint8_t, 16> guid;
  if (!pool.Take(guid.data(), guid.size())) return {};
  // A version 4 GUID, as the OS generators make them.
  guid[6] = static_cast<uint8_t>((guid[6] & 0x0F) | 0x40);
  guid[8] = static_cast<uint8_t>((guid[8] & 0x3F) | 0x80);
  return FormatID(guid);
}

}  // namespace qel
