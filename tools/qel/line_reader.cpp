#include "line_reader.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace qelcli {

LineReader::LineReader(int fd, std::function<void(std::string)> onLine, std::function<void()> onEnd)
    : fd_(fd), onLine_(std::move(onLine)), onEnd_(std::move(onEnd)) {
  if (pipe(wake_) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  thread_ = std::thread([this] { Run(); });
}

LineReader::~LineReader() {
  (void)!write(wake_[1], "x", 1);
  thread_.join();
  close(wake_[0]);
  close(wake_[1]);
}

void LineReader::Run() {
  std::string pending;
  char buffer[4096];
  for (;;) {
    pollfd fds[2] = {{fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (fds[1].revents) return;  // stopped: nobody wants the rest
    ssize_t n = read(fd_, buffer, sizeof buffer);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) break;
    pending.append(buffer, static_cast<size_t>(n));
    size_t start = 0;
    for (size_t eol; (eol = pending.find('\n', start)) != std::string::npos; start = eol + 1) {
      size_t end = eol > start && pending[eol - 1] == '\r' ? eol - 1 : eol;
      onLine_(pending.substr(start, end - start));
    }
    pending.erase(0, start);
  }
  // A last line without its newline still counts.
  if (!pending.empty()) onLine_(pending);
  onEnd_();
}

}  // namespace qelcli
