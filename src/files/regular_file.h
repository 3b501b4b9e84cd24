// Opening files that can be read to their end without blocking.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qel {

// open(2) of path with flags (plus close-on-exec), kept only when it is a
// regular file: a FIFO or a device could block or never end. Returns the
// descriptor, or -1 with errno set (EINVAL for a NUL in path or a file that
// is not regular, EISDIR for a folder).
int OpenRegularFile(const std::string& path, int flags);

// fd, opened non-blocking, made blocking when it is a regular file; closed
// otherwise. Returns fd, or -1 with errno set as OpenRegularFile does.
int KeepIfRegular(int fd);

// Reads up to size bytes of fd at offset into out, retrying short reads;
// fewer come back only at the end of the file. Throws std::system_error
// naming what on a read error.
size_t ReadAt(int fd, char* out, size_t size, int64_t offset, const char* what);

// Writes all of data to fd at offset, retrying short writes. Throws
// std::system_error naming what when a write fails.
void WriteAt(int fd, std::string_view data, int64_t offset, const char* what);

// The MD5 of everything fd holds, from its start, in hex; read in chunks,
// never whole. Throws std::system_error naming what on a read error.
std::string HashOpenFile(int fd, const std::string& what);

// Closes fd when it goes out of scope.
struct ClosingFd {
  int fd;
  ~ClosingFd();
};

}  // namespace qel
