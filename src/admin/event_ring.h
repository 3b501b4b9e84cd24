// The last events as JSON lines, numbered, for the event streams: the loop
// pushes, each stream's thread waits for what follows its cursor.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace qel::admin {

class EventRing {
 public:
  // At most maxEvents events and about maxBytes of text are kept: a file
  // piece's event carries its data.
  EventRing(size_t maxEvents, size_t maxBytes);

  // Numbers the line (from 1) and wakes the waiting streams.
  void Push(std::string line);

  struct Batch {
    std::vector<std::pair<uint64_t, std::string>> events;  // in order, after the cursor
    uint64_t missed = 0;  // events after the cursor that were already dropped
    bool closed = false;
  };
  // Numbers count events without keeping them, nor any before them: no stream
  // read them.
  void Skip(uint64_t count);
  // The events after cursor, waiting until there is one, the ring closes or
  // until passes. Moves cursor past them, and past the missed ones.
  Batch After(uint64_t& cursor, std::chrono::steady_clock::time_point until);
  // The number of the last event pushed (0 before any).
  uint64_t Last() const;
  // Wakes every waiter for good.
  void Close();

 private:
  const size_t maxEvents_, maxBytes_;
  mutable std::mutex mutex_;
  std::condition_variable pushed_;
  std::deque<std::string> lines_;
  uint64_t first_ = 1;  // the number of lines_.front()
  size_t bytes_ = 0;
  bool closed_ = false;
};

}  // namespace qel::admin
