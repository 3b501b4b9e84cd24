#include "files/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace qel {

int OpenRegularFile(const std::string& path, int flags) {
  if (path.find('\0') != std::string::npos) {
    errno = EINVAL;
    return -1;
  }
  // Non-blocking, so that opening a FIFO does not wait for a writer.
  const int fd = open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK, 0666);
  return fd < 0 ? -1 : KeepIfRegular(fd);
}

int KeepIfRegular(int fd) {
  struct stat info {};
  int error = 0;
  if (fstat(fd, &info) != 0) {
    error = errno;
  } else if (!S_ISREG(info.st_mode)) {
    error = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
  } else if (fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0) {
    error = errno;
  }
  if (error != 0) {
    close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

size_t ReadAt(int fd, char* out, size_t size, int64_t offset, const char* what) {
  size_t got = 0;
  while (got < size) {
    const ssize_t n = pread(fd, out + got, size - got, static_cast<off_t>(offset + got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw std::system_error(errno, std::generic_category(), what);
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return got;
}

void WriteAt(int fd, std::string_view data, int64_t offset, const char* what) {
  size_t put = 0;
  while (put < data.size()) {
    const ssize_t n = pwrite(fd, data.data() + put, data.size() - put,
                             static_cast<off_t>(offset + static_cast<int64_t>(put)));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw std::system_error(errno, std::generic_category(), what);
    put += static_cast<size_t>(n);
  }
}

ClosingFd::~ClosingFd() {
  if (fd >= 0) close(fd);
}

}  // namespace qel
