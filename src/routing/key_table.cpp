#include "routing/key_table.h"

#include <random>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace qel {
namespace {

// Seeded per process: IDs come from peers, and a fixed seed would let one
// send IDs that all land on the same run of slots.
uint64_t Seed() {
  static const uint64_t seed = [] {
    std::random_device device;
    return (uint64_t{device()} << 32) ^ device();
  }();
  return seed;
}

}  // namespace

IDKey KeyOf(std::string_view id) {
  const XXH128_hash_t h = XXH3_128bits_withSeed(id.data(), id.size(), Seed());
  return {h.low64, h.high64};
}

}  // namespace qel
