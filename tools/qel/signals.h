// SIGINT and SIGTERM, turned into a call on a thread of the console's own.
#pragma once

#include <functional>
#include <thread>

#include <termios.h>

namespace qelcli {

// The handler only writes the signal's number to a pipe; a thread waits on
// the pipe and calls onFirst for the first signal. A second one, when the
// first did not end the process in time, ends it at once with the terminal
// as it was when this was made. One at a time per process.
class ShutdownSignals {
 public:
  explicit ShutdownSignals(std::function<void()> onFirst);
  // Restores the default handling.
  ~ShutdownSignals();
  ShutdownSignals(const ShutdownSignals&) = delete;
  ShutdownSignals& operator=(const ShutdownSignals&) = delete;

 private:
  void Watch();

  std::function<void()> onFirst_;
  bool terminal_ = false;  // stdin is a terminal, saved in termios_
  termios termios_{};
  int wake_[2] = {-1, -1};
  std::thread thread_;
};

}  // namespace qelcli
