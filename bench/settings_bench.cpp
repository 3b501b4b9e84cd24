// Costs of the pieces every message and every node start touch.
#include <benchmark/benchmark.h>

#include <qel/settings.h>

#include "core/new_id.h"
#include "protocol/fields.h"

namespace qel {
namespace {

void BM_NewID(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(NewID());
}
BENCHMARK(BM_NewID);

// A message's worth of header fields, set and read back.
void BM_FieldListBuildAndRead(benchmark::State& state) {
  for (auto _ : state) {
    FieldList fields = NewFieldList();
    AddSingleField(fields, "Destination", "BROADCAST");
    AddSingleField(fields, "Source", "0123456789ABCDEF0123456789ABCDEF");
    AddSingleField(fields, "TTL", 20);
    AddSingleField(fields, "Hops", 0);
    AddSingleField(fields, "ID", "FEDCBA9876543210FEDCBA9876543210");
    AppendField(fields, "Route", "0123456789ABCDEF0123456789ABCDEF", ",");
    AppendField(fields, "Flags", "Z", ",");
    benchmark::DoNotOptimize(GetSingleField(fields, "ttl"));
    benchmark::DoNotOptimize(FindField(fields, "route"));
  }
}
BENCHMARK(BM_FieldListBuildAndRead);

void BM_SettingsParse(benchmark::State& state) {
  cSettings source;
  for (int i = 0; i < state.range(0); ++i) {
    source.SaveSetting("Key" + std::to_string(i), i, "Section" + std::to_string(i % 8));
  }
  std::string text = source.getXML();
  for (auto _ : state) {
    cSettings store;
    benchmark::DoNotOptimize(store.LoadXML(text));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * text.size());
}
BENCHMARK(BM_SettingsParse)->Arg(16)->Arg(256);

}  // namespace
}  // namespace qel
