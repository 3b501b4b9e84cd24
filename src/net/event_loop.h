// The process-wide Asio loop, its waits and its timers. Only src/net sees Asio.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace qel {

// Milliseconds from a steady clock: the tick count the waits and the
// confirmation timing measure with.
int64_t TickCount();

// Whether the calling thread is the loop's, making it the loop's thread when
// none is yet. Every public entry point that touches the loop or a node
// asks, and throws with ThrowWrongThread when it is not.
bool OnLoopThread();
// Throws QelError kWrongThread naming call and the rule.
[[noreturn]] void ThrowWrongThread(const std::string& call);

// WakeLoop() when a host watches LoopDescriptor(); nothing otherwise. For work
// posted from outside the loop, which Asio would not signal to a watcher.
void WakeWatchedLoop();

// Runs the loop until done() is true or timeoutMs have passed; returns done().
// Events of every node run meanwhile, so callers must re-check their state.
bool RunUntil(const std::function<bool()>& done, int64_t timeoutMs);

// A repeating timer on the loop. Destroying it cancels it.
class Timer {
 public:
  explicit Timer(std::function<void()> onTick);
  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  void SetInterval(int32_t intervalMs);
  int32_t Interval() const;
  void Enable(bool on);
  bool Enabled() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace qel
