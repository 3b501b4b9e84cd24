// What a node's snapshot costs a host that asks for it often: a node that knows 1000
// others, the size of a large overlay, whose every entry the snapshot copies.
#include <benchmark/benchmark.h>

#include <qel/node.h>

#include "known_nodes.h"

namespace qelbench {
namespace {

void BM_SnapshotWith1000KnownNodes(benchmark::State& state) {
  qel::cQEL node;
  node.Initialise("observed");
  AddKnownNodes(node, 1000);
  for (auto _ : state) {
    qel::NodeSnapshot shot = node.Snapshot();
    benchmark::DoNotOptimize(shot);
  }
  state.counters["knownNodes"] = static_cast<double>(node.Snapshot().knownNodes.size());
}
BENCHMARK(BM_SnapshotWith1000KnownNodes)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace qelbench
