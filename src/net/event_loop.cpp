#include "net/event_loop.h"

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <qel/error.h>
#include <qel/event_loop.h>

#include "net/asio_context.h"
#include "net/socket.h"

namespace qel {
namespace {

struct Loop {
  // Not the single-thread hint: with it, Asio keeps work started inside a
  // running handler in a private queue that a nested run (a handler waiting
  // for an answer) never sees, so the answer would only come after the wait.
  asio::io_context io;
  asio::executor_work_guard<asio::io_context::executor_type> keepAlive{io.get_executor()};
  bool stopRequested = false;
};

Loop& TheLoop() {
  static Loop* loop = new Loop;  // never destroyed: node objects may outlive statics
  return *loop;
}

// The first thread to use the loop owns it for the process's life. Written
// once, read on every call: a relaxed load and a compare in the common case.
std::atomic<std::thread::id> loopThread;

}  // namespace

bool OnLoopThread() {
  const std::thread::id me = std::this_thread::get_id();
  std::thread::id owner = loopThread.load(std::memory_order_relaxed);
  if (owner == me) return true;
  return owner == std::thread::id() && loopThread.compare_exchange_strong(owner, me);
}

void ThrowWrongThread(const std::string& call) {
  throw QelError(errors::kWrongThread, call,
                 call +
                     " called on a thread other than the event loop's: QEL is used on the thread "
                     "that first created a node or ran the loop; other threads hand work to it "
                     "with qel::Post");
}

asio::io_context& IoContext() {
  return TheLoop().io;
}

int64_t TickCount() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

bool RunUntil(const std::function<bool()>& done, int64_t timeoutMs) {
  auto& io = IoContext();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    FlushPendingWrites();
    auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return done();
    io.run_one_until(deadline);
    if (io.stopped()) io.restart();
  }
  FlushPendingWrites();
  return true;
}

void DoEvents(int32_t lngWaitMs) {
  if (!OnLoopThread()) ThrowWrongThread("DoEvents");
  auto& io = IoContext();
  FlushPendingWrites();
  size_t ran = io.poll();
  FlushPendingWrites();
  if (ran == 0 && lngWaitMs > 0) {
    ran = io.run_one_for(std::chrono::milliseconds(lngWaitMs));
    FlushPendingWrites();
    if (ran) io.poll();
    FlushPendingWrites();
  }
  if (io.stopped()) io.restart();
}

void RunEventLoop() {
  if (!OnLoopThread()) ThrowWrongThread("RunEventLoop");
  auto& loop = TheLoop();
  loop.stopRequested = false;
  while (!loop.stopRequested) {
    FlushPendingWrites();
    loop.io.run_one();
    if (loop.io.stopped()) loop.io.restart();
  }
  FlushPendingWrites();
  loop.stopRequested = false;
}

void StopEventLoop() {
  asio::post(IoContext(), [] { TheLoop().stopRequested = true; });
}

void Post(std::function<void()> fn) {
  asio::post(IoContext(), std::move(fn));
}

struct Timer::Impl : std::enable_shared_from_this<Impl> {
  explicit Impl(std::function<void()> tick) : timer(IoContext()), onTick(std::move(tick)) {}

  void Arm() {
    ++generation;
    timer.expires_after(std::chrono::milliseconds(interval));
    timer.async_wait([weak = weak_from_this(), gen = generation](const std::error_code& ec) {
      auto self = weak.lock();
      if (ec || !self || !self->enabled || gen != self->generation) return;
      self->Arm();  // re-arm first, so a tick that disables the timer wins
      auto tick = self->onTick;
      tick();
    });
  }

  asio::steady_timer timer;
  std::function<void()> onTick;
  int32_t interval = 1000;
  bool enabled = false;
  uint64_t generation = 0;
};

Timer::Timer(std::function<void()> onTick) : impl_(std::make_shared<Impl>(std::move(onTick))) {}

Timer::~Timer() {
  impl_->enabled = false;
  impl_->timer.cancel();
}

void Timer::SetInterval(int32_t intervalMs) {
  impl_->interval = intervalMs > 0 ? intervalMs : 1;
  if (impl_->enabled) impl_->Arm();
}

int32_t Timer::Interval() const {
  return impl_->interval;
}

void Timer::Enable(bool on) {
  if (on == impl_->enabled) return;
  impl_->enabled = on;
  if (on) {
    impl_->Arm();
  } else {
    impl_->timer.cancel();
  }
}

bool Timer::Enabled() const {
  return impl_->enabled;
}

}  // namespace qel
