// libFuzzer entry point for what a connection receives.
#include <cstdlib>

#include "connection_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // One node for the whole run, as setting it up costs far more than an input.
  static auto* fuzzer = new qel::ConnectionFuzzer;
  if (!fuzzer->Run(data, size)) std::abort();
  return 0;
}
