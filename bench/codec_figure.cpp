#include "codec_figure.h"

#include <cstring>
#include <functional>

#include <qel/node.h>

#include "protocol/body.h"
#include "protocol/feeder.h"
#include "reference_codec.h"
#include "stamped_message.h"

namespace qelbench {
namespace {

// Time spent on each case per run.
constexpr int64_t kRunNs = 200'000'000;

// Makes the compiler assume the value is read, so the work is not dropped.
template <typename T>
void Keep(const T& value) {
  asm volatile("" : : "g"(&value) : "memory");
}

double NsPerMessage(const std::function<void()>& step) {
  int64_t count = 0;
  const int64_t start = NowNs();
  int64_t elapsed = 0;
  do {
    for (int i = 0; i < 256; ++i) step();
    count += 256;
    elapsed = NowNs() - start;
  } while (elapsed < kRunNs);
  return static_cast<double>(elapsed) / static_cast<double>(count);
}

}  // namespace

void CodecChild(Channel& channel, int runs) {
  UseLoopback();
  qel::cQEL node;
  node.Initialise("codec");
  const qel::typMessage stamped = StampedMessage(node);
  const std::string key = ReferenceKey();
  const std::string netPass = "blankey";

  std::string wire;
  qel::MessageFeeder feeder;
  size_t delivered = 0;
  auto qelPlain = [&] {
    wire.clear();
    qel::SerialiseMessage(stamped, wire);
    feeder.Feed(wire, [&](qel::typMessage&& message) { delivered += message.Body.size(); });
  };
  auto framePlain = [&] {
    wire.clear();
    const uint32_t size = static_cast<uint32_t>(Payload().size());
    wire.append(reinterpret_cast<const char*>(&size), 4);
    wire.append(Payload());
    uint32_t parsed = 0;
    std::memcpy(&parsed, wire.data(), 4);
    std::string body(wire.data() + 4, parsed);
    Keep(body);
    delivered += body.size();
  };
  // The copy stands for the fresh message a sender encodes each time.
  auto qelBody = [&] {
    qel::typMessage message = stamped;
    qel::EncodeBody(message,
                    {.useEnc = true, .destinationKey = key, .netPass = netPass, .useComp = true});
    qel::DecodeBody(message, netPass, key, 1 << 26);
    delivered += message.Body.size();
  };
  auto frameBody = [&] {
    std::string body = Open(Seal(Payload(), key), key);
    delivered += body.size();
  };

  // Each case must reproduce the text before it is timed.
  std::string received;
  wire.clear();
  qel::SerialiseMessage(stamped, wire);
  feeder.Feed(wire, [&](qel::typMessage&& message) { received = message.Body; });
  qel::typMessage encoded = stamped;
  qel::EncodeBody(encoded,
                  {.useEnc = true, .destinationKey = key, .netPass = netPass, .useComp = true});
  qel::DecodeBody(encoded, netPass, key, 1 << 26);
  if (received != Payload() || encoded.Body != Payload() ||
      Open(Seal(Payload(), key), key) != Payload()) {
    return channel.Send("fail a codec does not reproduce the text");
  }

  const std::pair<const char*, std::function<void()>> cases[] = {{"qel-plain", qelPlain},
                                                                 {"frame-plain", framePlain},
                                                                 {"qel-body", qelBody},
                                                                 {"frame-body", frameBody}};
  for (const auto& [name, step] : cases) {
    NsPerMessage(step);  // warm-up
    for (int run = 0; run < runs; ++run) {
      channel.Send(std::string("codec case=") + name + " ns=" + std::to_string(NsPerMessage(step)));
    }
  }
  Keep(delivered);
  channel.Send(feeder.malformedCount() == 0 ? "done" : "fail malformed messages");
}

}  // namespace qelbench
