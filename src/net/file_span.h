// Bytes of an open file that a link sends without copying them into the process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace qel {

// An open descriptor shared by whoever still has bytes of it to send: it closes when the
// last holder lets go, so a transfer that ends early leaves its queued pieces valid.
class SharedFile {
 public:
  explicit SharedFile(int fd) : fd_(fd) {}
  ~SharedFile();
  SharedFile(const SharedFile&) = delete;
  SharedFile& operator=(const SharedFile&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// length bytes of file from offset.
struct FileSpan {
  std::shared_ptr<const SharedFile> file;
  int64_t offset = 0;
  size_t length = 0;
};

}  // namespace qel
