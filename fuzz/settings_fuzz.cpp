// libFuzzer entry point for the settings text.
#include "settings_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qel::FuzzSettingsInput(data, size);
  return 0;
}
