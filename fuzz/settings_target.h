// The settings text, as it arrives in INFO bodies and settings files.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qel {

// Loads data as a settings text and reads back everything it produced.
void FuzzSettingsInput(const uint8_t* data, size_t size);

}  // namespace qel
