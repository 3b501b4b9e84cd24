#include <qel/event_loop.h>

#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <memory>
#include <thread>

#include "net/event_loop.h"
#include "net/worker.h"

namespace qel {
namespace {

// Runs the loop the way a host's loop watching the descriptor does: waits
// until it is readable, then DoEvents(0); false when it stays quiet for 10 s
// before done() holds.
bool RunAsHost(int fd, const std::function<bool()>& done) {
  while (!done()) {
    pollfd watch{.fd = fd, .events = POLLIN, .revents = 0};
    if (poll(&watch, 1, 10000) != 1) return false;
    DoEvents(0);
  }
  return true;
}

bool Quiet(int fd) {
  pollfd watch{.fd = fd, .events = POLLIN, .revents = 0};
  return poll(&watch, 1, 0) == 0;
}

// A host loop that only watches the descriptor is woken by everything that
// gives QEL's loop work while nothing else happens: a timer, work posted from
// another thread, the worker's result. What a handler posts runs in the same
// DoEvents(0), and once it returns the descriptor is quiet again.
TEST(EventLoopTest, DescriptorWakesAHostLoopForTimersPostsAndWorkerResults) {
  const int fd = LoopDescriptor();
  DoEvents(0);
  EXPECT_TRUE(Quiet(fd));

  int ticks = 0;
  Timer timer([&ticks] { ++ticks; });
  timer.SetInterval(20);
  timer.Enable(true);
  EXPECT_TRUE(RunAsHost(fd, [&] { return ticks > 0; }));
  timer.Enable(false);

  bool posted = false, chained = false;
  std::thread([&] {
    Post([&] {
      posted = true;
      Post([&] { chained = true; });
    });
  }).join();
  EXPECT_TRUE(RunAsHost(fd, [&] { return posted; }));
  EXPECT_TRUE(chained);

  bool worked = false;
  RunOffLoop([&worked]() -> std::function<void()> { return [&worked] { worked = true; }; });
  EXPECT_TRUE(RunAsHost(fd, [&] { return worked; }));

  DoEvents(0);
  EXPECT_TRUE(Quiet(fd));
}

}  // namespace
}  // namespace qel
