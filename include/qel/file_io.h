// clsFileIO2: one file read and written in pieces, as file transfers do.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <qel/export.h>

namespace qel {

// Holds at most one open file and a position: the 1-based number of the next
// byte to read or write, read with filePos() and set with filePos(n). The
// position is 64-bit, so any byte of a file the system can hold is reached.
// Misuse (no file open, a negative size, a position below 1) throws
// std::logic_error or std::invalid_argument; a failing system call throws
// std::system_error. Movable, not copyable; the destructor closes the file.
class QEL_API clsFileIO2 {
 public:
  clsFileIO2() = default;
  ~clsFileIO2();
  clsFileIO2(clsFileIO2&& other) noexcept;
  clsFileIO2& operator=(clsFileIO2&& other) noexcept;
  clsFileIO2(const clsFileIO2&) = delete;
  clsFileIO2& operator=(const clsFileIO2&) = delete;

  // Closes the file open before and opens strPath for binary reading and
  // writing at position 1. A missing file is created empty when
  // createMissing (a download writes its pieces into a new file); a file the
  // process may only read is opened for reading, and writing to it throws.
  // False when the path cannot be opened or is not a regular file.
  bool openFile(const std::string& strPath, bool createMissing = true);

  // Reads up to size bytes at the position into data (replacing what it
  // held), moves the position past them and returns how many: fewer at the
  // end of the file, none past it. data takes room for the bytes the file
  // still has up to size, not for size itself: a large size is safe.
  int64_t readChunk(int64_t size, std::string& data);

  // Writes dataChunk at the position, past the end too (what lies between
  // reads as zeros), and moves the position past it. A position the system
  // cannot write at (beyond its largest file) throws std::system_error.
  void writeChunk(std::string_view dataChunk);

  // Closes the file, if one is open; the position goes back to 1.
  void closeFile();

  bool isOpen() const { return fd_ >= 0; }
  int64_t filePos() const { return pos_; }
  void filePos(int64_t position);

 private:
  void RequireOpen() const;

  int fd_ = -1;
  bool writable_ = false;
  int64_t pos_ = 1;
};

}  // namespace qel
