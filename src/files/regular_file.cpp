#include "files/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace qel {

int OpenRegularFile(const std::string& path, int flags) {
  if (path.find('\0') != std::string::npos) {
    errno = EINVAL;
    return -1;
  }
  // Non-blocking, so that opening a FIFO does not wait for a writer.
  const int fd = open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK, 0666);
  if (fd < 0) return -1;
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

ClosingFd::~ClosingFd() {
  if (fd >= 0) close(fd);
}

}  // namespace qel
