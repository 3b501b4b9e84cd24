#include "net/file_span.h"

#include <unistd.h>

namespace qel {

SharedFile::~SharedFile() {
  if (fd_ >= 0) close(fd_);
}

}  // namespace qel
