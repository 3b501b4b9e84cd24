#include "reference_codec.h"

#include <zlib.h>

#include <cstdint>
#include <cstring>

namespace qelbench {
namespace {

void Xor(char* data, size_t size, std::string_view key) {
  for (size_t i = 0; i < size; ++i) data[i] ^= key[i % key.size()];
}

}  // namespace

std::string Seal(std::string_view text, std::string_view key) {
  std::string plain(text);
  Xor(plain.data(), plain.size(), key);
  uLongf packed = compressBound(plain.size());
  std::string out(4 + packed, '\0');
  const uint32_t original = static_cast<uint32_t>(plain.size());
  std::memcpy(out.data(), &original, 4);
  compress2(reinterpret_cast<Bytef*>(out.data() + 4), &packed,
            reinterpret_cast<const Bytef*>(plain.data()), plain.size(), 9);
  out.resize(4 + packed);
  return out;
}

std::string Open(std::string_view sealed, std::string_view key) {
  if (sealed.size() < 4) return {};
  uint32_t original = 0;
  std::memcpy(&original, sealed.data(), 4);
  std::string out(original, '\0');
  uLongf size = original;
  if (uncompress(reinterpret_cast<Bytef*>(out.data()), &size,
                 reinterpret_cast<const Bytef*>(sealed.data() + 4), sealed.size() - 4) != Z_OK) {
    return {};
  }
  out.resize(size);
  Xor(out.data(), out.size(), key);
  return out;
}

}  // namespace qelbench
