#include "connection_target.h"

#include <string_view>

#include <qel/settings.h>

#include "protocol/body.h"
#include "protocol/feeder.h"

namespace qel {

void FuzzConnectionInput(const uint8_t* data, size_t size) {
  if (size < 2) return;
  // The first two bytes pick the piece size, so splits are explored too.
  const size_t piece = 1 + ((data[0] << 8 | data[1]) % 4096);
  std::string_view input(reinterpret_cast<const char*>(data + 2), size - 2);
  MessageFeeder feeder({.maxHeader = 65536, .maxMessage = 1 << 20});
  for (size_t at = 0; at < input.size(); at += piece) {
    auto outcome = feeder.Feed(input.substr(at, piece), [](typMessage&& message) {
      HasFlag(message, "C");
      try {
        DecodeBody(message, "blankey", "KEY", 1 << 20);
        cSettings body;
        body.LoadXML(message.Body);
      } catch (const std::exception&) {
        // Numbered errors are how bad bodies are reported; anything else
        // escaping would be a bug, and libFuzzer reports it.
      }
    });
    if (outcome != MessageFeeder::Outcome::Ok) feeder.Reset();
  }
}

}  // namespace qel
