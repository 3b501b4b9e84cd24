// What relaying costs a node: messages arriving on one link and flooded to
// another, counted in heap allocations as well as time. The links live in
// memory, so only the node's own work is measured.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include <qel/node.h>
#include <qel/settings.h>

#include "connection_target.h"
#include "core/new_id.h"
#include "protocol/message.h"
#include "stamped_message.h"

namespace {

// Every allocation of the process, counted; the benchmark reads the
// difference across the messages it feeds.
size_t allocations = 0;

}  // namespace

// The replacements pair malloc with free, which GCC cannot see through.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void* operator new(size_t size) {
  ++allocations;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void* operator new[](size_t size) {
  return operator new(size);
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete[](void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, size_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, size_t) noexcept {
  std::free(p);
}

namespace qelbench {
namespace {

// One read's worth of 100-byte messages for destination (some other node
// when empty), each with an ID of its own.
std::string MessageBatch(int count, const std::string& destination = "") {
  qel::cQEL origin;
  origin.Initialise("origin");
  qel::typMessage message = StampedMessage(origin);
  if (!destination.empty()) qel::SetField(message.Fields, "Destination", qel::Variant(destination));
  std::string wire;
  for (int i = 0; i < count; ++i) {
    qel::SetField(message.Fields, "ID", qel::Variant(qel::NewID()));
    qel::SerialiseMessage(message, wire);
  }
  return wire;
}

// One node for the process, without the duplicate window, which would drop
// the same batch the second time.
qel::ConnectionFuzzer& TheNode() {
  static auto* node = [] {
    qel::cSettings settings;
    settings.SaveSetting("dupWindow", 0);
    return new qel::ConnectionFuzzer(settings.getXML());
  }();
  return *node;
}

void BM_RelayMessage(benchmark::State& state) {
  constexpr int kBatch = 256;  // more than the duplicate cache holds
  qel::ConnectionFuzzer* relay = &TheNode();
  const std::string batch = MessageBatch(kBatch);
  relay->Receive(batch);  // warm: buffers reach their working size
  size_t counted = 0;
  for (auto _ : state) {
    const size_t before = allocations;
    relay->Receive(batch);
    counted += allocations - before;
    if (relay->Relayed().size() < batch.size()) state.SkipWithError("messages were not relayed");
  }
  const double messages = static_cast<double>(state.iterations()) * kBatch;
  state.counters["allocs/msg"] = static_cast<double>(counted) / messages;
  state.SetItemsProcessed(static_cast<int64_t>(messages));
}
BENCHMARK(BM_RelayMessage);

// The same for chat messages to the node itself, each handed to the host.
void BM_DeliverMessage(benchmark::State& state) {
  constexpr int kBatch = 256;
  qel::ConnectionFuzzer* node = &TheNode();
  const std::string batch = MessageBatch(kBatch, qel::ConnectionFuzzer::kNodeID);
  node->Receive(batch);
  size_t counted = 0;
  for (auto _ : state) {
    const size_t before = allocations;
    node->Receive(batch);
    counted += allocations - before;
    if (!node->Relayed().empty()) state.SkipWithError("messages were relayed, not delivered");
  }
  const double messages = static_cast<double>(state.iterations()) * kBatch;
  state.counters["allocs/msg"] = static_cast<double>(counted) / messages;
  state.SetItemsProcessed(static_cast<int64_t>(messages));
}
BENCHMARK(BM_DeliverMessage);

}  // namespace
}  // namespace qelbench
