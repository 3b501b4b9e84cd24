// Everything a peer's bytes reach before any socket is involved: the stream
// cutter, the header parser, body decoding and the settings bodies.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qel {

// Feeds data as a connection would receive it, cut into pieces at places the
// first bytes choose, and decodes every message that comes out.
void FuzzConnectionInput(const uint8_t* data, size_t size);

}  // namespace qel
