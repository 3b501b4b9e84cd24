// The codec's share of every message: text out, text back in.
#include <benchmark/benchmark.h>

#include <vector>

#include <qel/node.h>

#include "protocol/body.h"
#include "protocol/feeder.h"
#include "stamped_message.h"

namespace qelbench {
namespace {

// One node for the whole process: stamping needs a node's identity.
qel::cQEL& StampingNode() {
  static qel::cQEL* node = [] {
    auto* n = new qel::cQEL;  // outlives the benchmarks; nothing to tear down
    n->Initialise("bench");
    return n;
  }();
  return *node;
}

void BM_SerialiseMessage(benchmark::State& state) {
  const qel::typMessage message = StampedMessage(StampingNode());
  std::string wire;
  for (auto _ : state) {
    wire.clear();
    qel::SerialiseMessage(message, wire);
    benchmark::DoNotOptimize(wire.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * wire.size()));
}
BENCHMARK(BM_SerialiseMessage);

void BM_FeedMessage(benchmark::State& state) {
  const std::string wire = qel::SerialiseMessage(StampedMessage(StampingNode()));
  qel::MessageFeeder feeder;
  size_t bodies = 0;
  for (auto _ : state) {
    feeder.Feed(wire, [&](qel::typMessage&& message) { bodies += message.Body.size(); });
  }
  benchmark::DoNotOptimize(bodies);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * wire.size()));
}
BENCHMARK(BM_FeedMessage);

// A receive buffer holding many messages back to back, as a busy link
// delivers them.
void BM_FeedBatch(benchmark::State& state) {
  const std::string one = qel::SerialiseMessage(StampedMessage(StampingNode()));
  std::string wire;
  for (int i = 0; i < state.range(0); ++i) wire += one;
  qel::MessageFeeder feeder;
  size_t bodies = 0;
  for (auto _ : state) {
    feeder.Feed(wire, [&](qel::typMessage&& message) { bodies += message.Body.size(); });
  }
  benchmark::DoNotOptimize(bodies);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_FeedBatch)->Arg(100);

// The same batch cut as a link cuts it: messages that arrive whole in the
// plain form nodes write are found and indexed, not parsed.
void BM_FeedPlainBatch(benchmark::State& state) {
  const std::string one = qel::SerialiseMessage(StampedMessage(StampingNode()));
  std::string wire;
  for (int i = 0; i < state.range(0); ++i) wire += one;
  qel::MessageFeeder feeder({.keepPlainAsBytes = true});
  size_t indexed = 0;
  for (auto _ : state) {
    feeder.Feed(wire, [&](qel::typMessage&& message) { indexed += message.Index.valid; });
  }
  if (indexed != static_cast<size_t>(state.iterations() * state.range(0)))
    state.SkipWithError("messages were parsed, not indexed");
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_FeedPlainBatch)->Arg(100);

void BM_EncodeDecodeBody(benchmark::State& state) {
  const qel::typMessage stamped = StampedMessage(StampingNode());
  const bool comp = state.range(0) != 0;
  const std::string key = "{6F9619FF-8B86-D011-B42D-00C04FC964FF}";
  for (auto _ : state) {
    qel::typMessage message = stamped;
    qel::EncodeBody(message,
                    {.useEnc = true, .destinationKey = key, .netPass = "blankey", .useComp = comp});
    qel::DecodeBody(message, "blankey", key, 1 << 26);
    benchmark::DoNotOptimize(message.Body.data());
  }
}
BENCHMARK(BM_EncodeDecodeBody)->ArgName("comp")->Arg(0)->Arg(1);

}  // namespace
}  // namespace qelbench
