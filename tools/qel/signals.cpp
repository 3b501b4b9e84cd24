#include "signals.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace qelcli {
namespace {

int signalPipe[2] = {-1, -1};

void OnSignal(int number) {
  const int saved = errno;
  const auto byte = static_cast<unsigned char>(number);
  (void)!write(signalPipe[1], &byte, 1);  // async-signal-safe; a full pipe drops it
  errno = saved;
}

void Handle(void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

}  // namespace

ShutdownSignals::ShutdownSignals(std::function<void()> onFirst) : onFirst_(std::move(onFirst)) {
  terminal_ = tcgetattr(0, &termios_) == 0;
  if (pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0 || pipe2(wake_, O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  Handle(OnSignal);
  thread_ = std::thread([this] { Watch(); });
}

ShutdownSignals::~ShutdownSignals() {
  Handle(SIG_DFL);
  (void)!write(wake_[1], "x", 1);
  thread_.join();
  for (int fd : {signalPipe[0], signalPipe[1], wake_[0], wake_[1]}) close(fd);
  signalPipe[0] = signalPipe[1] = -1;
}

void ShutdownSignals::Watch() {
  int received = 0;
  for (;;) {
    pollfd fds[2] = {{signalPipe[0], POLLIN, 0}, {wake_[0], POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents) return;
    unsigned char number = 0;
    while (read(signalPipe[0], &number, 1) == 1) {
      if (++received == 1) {
        onFirst_();
      } else {
        // A command holds the loop (ping with a long time-out): do not wait.
        if (terminal_) tcsetattr(0, TCSANOW, &termios_);
        _exit(128 + number);
      }
    }
  }
}

}  // namespace qelcli
