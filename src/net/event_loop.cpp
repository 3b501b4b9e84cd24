#include "net/event_loop.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <optional>
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
  std::chrono::microseconds busyPoll{0};
};

Loop& TheLoop() {
  static Loop* loop = new Loop;  // never destroyed: node objects may outlive statics
  return *loop;
}

// The first thread to use the loop owns it for the process's life. Written
// once, read on every call: a relaxed load and a compare in the common case.
std::atomic<std::thread::id> loopThread;

using Deadline = std::optional<std::chrono::steady_clock::time_point>;

// Runs one handler, waiting until deadline at most (none: for ever): first
// polling for the busy-poll span, then blocking.
size_t RunOne(Loop& loop, Deadline deadline) {
  if (loop.busyPoll.count() > 0) {
    auto until = std::chrono::steady_clock::now() + loop.busyPoll;
    if (deadline) until = std::min(until, *deadline);
    do {
      if (const size_t ran = loop.io.poll_one()) return ran;
      if (loop.io.stopped()) loop.io.restart();
    } while (std::chrono::steady_clock::now() < until);
  }
  return deadline ? loop.io.run_one_until(*deadline) : loop.io.run_one();
}

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
  auto& loop = TheLoop();
  auto& io = loop.io;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    FlushPendingWrites();
    auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return done();
    RunOne(loop, deadline);
    if (io.stopped()) io.restart();
  }
  FlushPendingWrites();
  return true;
}

void DoEvents(int32_t lngWaitMs) {
  if (!OnLoopThread()) ThrowWrongThread("DoEvents");
  auto& loop = TheLoop();
  auto& io = loop.io;
  FlushPendingWrites();
  // One event first, waited for if need be, then whatever else is ready: a
  // poll before the wait would ask the kernel twice when nothing is ready.
  if (lngWaitMs > 0) {
    RunOne(loop, std::chrono::steady_clock::now() + std::chrono::milliseconds(lngWaitMs));
    FlushPendingWrites();
  }
  io.poll();
  FlushPendingWrites();
  if (io.stopped()) io.restart();
}

void RunEventLoop() {
  if (!OnLoopThread()) ThrowWrongThread("RunEventLoop");
  auto& loop = TheLoop();
  loop.stopRequested = false;
  while (!loop.stopRequested) {
    FlushPendingWrites();
    RunOne(loop, std::nullopt);
    if (loop.io.stopped()) loop.io.restart();
  }
  FlushPendingWrites();
  loop.stopRequested = false;
}

void StopEventLoop() {
  asio::post(IoContext(), [] { TheLoop().stopRequested = true; });
}

void SetBusyPoll(int32_t microseconds) {
  if (!OnLoopThread()) ThrowWrongThread("SetBusyPoll");
  TheLoop().busyPoll = std::chrono::microseconds(std::clamp(microseconds, 0, 1000000));
}

void Post(std::function<void()> fn) {
  asio::post(IoContext(), std::move(fn));
  WakeWatchedLoop();
}

// Asio has no accessor for its reactor's epoll descriptor, which is readable
// exactly when a registered socket, the timerfd or the interrupter is. An
// explicit instantiation may name a private member, so this reads it without
// patching Asio; a build of Asio without the member fails here, at compile time.
namespace {
struct EpollFdTag {
  using type = int asio::detail::epoll_reactor::*;
  friend type Member(EpollFdTag);
};
template <typename Tag, typename Tag::type M>
struct Expose {
  friend typename Tag::type Member(Tag) { return M; }
};
template struct Expose<EpollFdTag, &asio::detail::epoll_reactor::epoll_fd_>;

// Set once a host watches the descriptor: only then do posts from outside the
// loop need to make it readable (Asio wakes its reactor only while a thread
// blocks in it, which a host's loop never does).
std::atomic<bool> descriptorWatched{false};
}  // namespace

int LoopDescriptor() {
  if (!OnLoopThread()) ThrowWrongThread("LoopDescriptor");
  auto& reactor = asio::use_service<asio::detail::epoll_reactor>(IoContext());
  // Before any socket or timer exists the loop does not run the reactor yet,
  // and the wake-up its creation signals would leave the descriptor readable.
  reactor.init_task();
  descriptorWatched = true;
  return reactor.*Member(EpollFdTag{});
}

void WakeLoop() {
  asio::use_service<asio::detail::epoll_reactor>(IoContext()).interrupt();
}

void WakeWatchedLoop() {
  if (descriptorWatched.load(std::memory_order_relaxed)) WakeLoop();
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
