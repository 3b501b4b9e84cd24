// libFuzzer entry point for what a connection receives.
#include "connection_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qel::FuzzConnectionInput(data, size);
  return 0;
}
