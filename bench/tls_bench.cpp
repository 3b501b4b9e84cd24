// Costs of TLS on a link, in memory: what the engine adds before any socket does.
#include <benchmark/benchmark.h>

#include <string>

#include "core/node_key.h"
#include "net/tls_engine.h"

namespace qel {
namespace {

void Pump(TlsEngine& client, TlsEngine& server) {
  for (;;) {
    const std::string toServer = client.TakeCiphertext();
    const std::string toClient = server.TakeCiphertext();
    if (toServer.empty() && toClient.empty()) return;
    server.FeedCiphertext(toServer);
    client.FeedCiphertext(toClient);
  }
}

struct Pair {
  NodeKey clientKey = NodeKey::Fresh();
  NodeKey serverKey = NodeKey::Fresh();
  TlsIdentity clientIdentity{clientKey};
  TlsIdentity serverIdentity{serverKey};
};

// Both ends of one handshake, on one thread.
void BM_TlsHandshake(benchmark::State& state) {
  Pair pair;
  for (auto _ : state) {
    TlsEngine client(pair.clientIdentity, TlsRole::kClient);
    TlsEngine server(pair.serverIdentity, TlsRole::kServer);
    Pump(client, server);
    if (!server.HandshakeDone()) state.SkipWithError(server.Why().c_str());
  }
}
BENCHMARK(BM_TlsHandshake);

// 100-byte messages sealed and opened, range(0) per batch: one record per batch is what keeps
// secure links near plaintext speed.
void BM_TlsMessagesPerBatch(benchmark::State& state) {
  Pair pair;
  TlsEngine client(pair.clientIdentity, TlsRole::kClient);
  TlsEngine server(pair.serverIdentity, TlsRole::kServer);
  Pump(client, server);
  const std::string message(100, 'x');
  size_t wire = 0;
  for (auto _ : state) {
    for (int i = 0; i < state.range(0); ++i) client.WritePlain(message);
    const std::string sealed = client.TakeCiphertext();
    wire += sealed.size();
    server.FeedCiphertext(sealed);
    benchmark::DoNotOptimize(server.ReadPlain());
  }
  const double plain = 100.0 * state.range(0) * state.iterations();
  state.SetItemsProcessed(state.range(0) * state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(plain));
  state.counters["wire_overhead_pct"] = 100.0 * (wire - plain) / plain;
}
BENCHMARK(BM_TlsMessagesPerBatch)->Arg(1)->Arg(100);

}  // namespace
}  // namespace qel
