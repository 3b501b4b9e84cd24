#include <qel/file_io.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "files/regular_file.h"

namespace qel {

namespace {

[[noreturn]] void ThrowErrno(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

clsFileIO2::~clsFileIO2() {
  closeFile();
}

clsFileIO2::clsFileIO2(clsFileIO2&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      writable_(std::exchange(other.writable_, false)),
      pos_(std::exchange(other.pos_, 1)) {}

clsFileIO2& clsFileIO2::operator=(clsFileIO2&& other) noexcept {
  if (this != &other) {
    closeFile();
    fd_ = std::exchange(other.fd_, -1);
    writable_ = std::exchange(other.writable_, false);
    pos_ = std::exchange(other.pos_, 1);
  }
  return *this;
}

bool clsFileIO2::openFile(const std::string& strPath, bool createMissing) {
  closeFile();
  fd_ = OpenRegularFile(strPath, O_RDWR | (createMissing ? O_CREAT : 0));
  writable_ = fd_ >= 0;
  // Shared files are often read-only; serving them needs reading alone.
  if (fd_ < 0 && (errno == EACCES || errno == EPERM || errno == EROFS)) {
    fd_ = OpenRegularFile(strPath, O_RDONLY);
  }
  return fd_ >= 0;
}

int64_t clsFileIO2::readChunk(int64_t size, std::string& data) {
  RequireOpen();
  if (size < 0) throw std::invalid_argument("readChunk: negative size");
  struct stat info {};
  if (fstat(fd_, &info) != 0) ThrowErrno("readChunk");
  // pos_ - 1 cannot overflow: positions start at 1. A position past the end
  // leaves left negative, and nothing is read.
  const int64_t left = static_cast<int64_t>(info.st_size) - (pos_ - 1);
  const auto want = static_cast<size_t>(std::clamp<int64_t>(left, 0, size));
  data.resize(want);
  // Fewer bytes than asked when the file shrank meanwhile.
  const size_t got = ReadAt(fd_, data.data(), want, pos_ - 1, "readChunk");
  data.resize(got);
  pos_ += static_cast<int64_t>(got);
  return static_cast<int64_t>(got);
}

void clsFileIO2::writeChunk(std::string_view dataChunk) {
  RequireOpen();
  if (!writable_) {
    throw std::system_error(std::make_error_code(std::errc::permission_denied),
                            "writeChunk: the file is open for reading only");
  }
  // Checked before pwrite, whose offset would wrap instead.
  if (static_cast<int64_t>(dataChunk.size()) > INT64_MAX - pos_) {
    throw std::system_error(std::make_error_code(std::errc::file_too_large),
                            "writeChunk: past the largest position");
  }
  WriteAt(fd_, dataChunk, pos_ - 1, "writeChunk");
  pos_ += static_cast<int64_t>(dataChunk.size());
}

void clsFileIO2::closeFile() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
  writable_ = false;
  pos_ = 1;
}

void clsFileIO2::filePos(int64_t position) {
  if (position < 1) throw std::invalid_argument("filePos: positions count from 1");
  pos_ = position;
}

void clsFileIO2::RequireOpen() const {
  if (fd_ < 0) throw std::logic_error("clsFileIO2: no file is open");
}

}  // namespace qel
