// Names one link for as long as it lasts.
#pragma once

#include <cstdint>

namespace qel {

// A link: its element of the link table and which use of that element. Elements are
// taken again once a link closes, so an id kept past its link (by a served transfer, a
// pending reply) finds the link gone instead of writing to whatever took its place.
struct LinkId {
  int32_t index = 0;  // from 1; 0: no link
  uint64_t generation = 0;

  explicit operator bool() const { return index != 0; }
  bool operator==(const LinkId&) const = default;
};

}  // namespace qel
