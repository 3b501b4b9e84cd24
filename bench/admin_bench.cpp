// What the admin server costs the node: an event on its way to the event
// streams (run on the loop for every event while a server runs), and the
// metrics text of a node that knows many nodes (on the server's thread).
#include <benchmark/benchmark.h>
#include <httplib.h>

#include <atomic>
#include <semaphore>
#include <thread>

#include <qel/admin.h>
#include <qel/event_loop.h>
#include <qel/node.h>

#include "admin/event_json.h"
#include "admin/event_ring.h"
#include "admin/metrics.h"
#include "known_nodes.h"

namespace {

void BM_EventToRing(benchmark::State& state) {
  qel::admin::EventRing ring(1024, 16 << 20);
  const qel::typEvent event{"MessageReceived",
                            {{"strMessage", std::string("hello from a node")},
                             {"strType", std::string()},
                             {"nodeID", std::string("0123456789ABCDEF0123456789ABCDEF")}}};
  for (auto _ : state) ring.Push(qel::admin::EventLine(event));
}
BENCHMARK(BM_EventToRing)->Unit(benchmark::kMicrosecond);

qel::NodeSnapshot KnowingNodes(int known, int links) {
  qel::NodeSnapshot s;
  s.name = "bench";
  for (int i = 0; i < known; ++i) {
    s.knownNodes.push_back({.nodeID = "NODE" + std::to_string(1000000 + i), .name = "n" + std::to_string(i),
                            .address = "10.0.0.1:4000", .secondsSinceInfo = i});
  }
  for (int i = 0; i < links; ++i) {
    s.links.push_back({.address = "10.0.0.1:" + std::to_string(4000 + i),
                       .nodeID = "NODE" + std::to_string(1000000 + i), .bytesIn = i * 1000,
                       .bytesOut = i * 900, .messagesIn = i, .messagesOut = i});
  }
  for (const char* reason : {"memory", "connections", "stall", "dup-window", "rpc", "serving",
                             "search", "node-cache", "users", "future-stamp", "key-mismatch"}) {
    s.refusals.push_back({.reason = reason});
  }
  return s;
}

void BM_MetricsText(benchmark::State& state) {
  const qel::NodeSnapshot s = KnowingNodes(1000, static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(qel::admin::Metrics(s));
}
BENCHMARK(BM_MetricsText)->Arg(8)->Arg(100)->Unit(benchmark::kMicrosecond);

// A whole scrape over loopback: the request, the snapshot taken on the loop
// (run here), the text written on the server's thread, the answer read.
void BM_ScrapeWith1000KnownNodes(benchmark::State& state) {
  qel::cQEL node;
  node.Initialise("observed");
  qelbench::AddKnownNodes(node, 1000);
  qel::AdminServer server(node, {});
  const std::string url = server.Start();
  const int port = std::stoi(url.substr(url.rfind(':') + 1));

  std::binary_semaphore go(0);
  std::atomic<bool> done = false, stop = false;
  size_t bytes = 0;
  std::thread client([&] {
    httplib::Client http("127.0.0.1", port);
    http.set_keep_alive(true);
    http.set_tcp_nodelay(true);
    for (;;) {
      go.acquire();
      if (stop) return;
      auto res = http.Get("/metrics");
      bytes = res && res->status == 200 ? res->body.size() : 0;
      done = true;
      qel::Post([] {});  // wakes the loop to see it
    }
  });
  for (auto _ : state) {
    done = false;
    go.release();
    qel::RunUntil([&] { return done.load(); }, 10000);
  }
  stop = true;
  go.release();
  client.join();
  state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_ScrapeWith1000KnownNodes)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
