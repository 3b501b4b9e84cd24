#include <qel/md5.h>

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "files/regular_file.h"

namespace qel {

namespace {

// Bytes read and hashed at a time.
constexpr size_t kHashChunk = size_t{1} << 20;

struct ContextFree {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

class Digest {
 public:
  Digest() : context_(EVP_MD_CTX_new()) {
    if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_md5(), nullptr) != 1) Fail();
  }
  void Update(const void* data, size_t size) {
    if (EVP_DigestUpdate(context_.get(), data, size) != 1) Fail();
  }
  std::string HexFinal() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (EVP_DigestFinal_ex(context_.get(), digest, &size) != 1) Fail();
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < size; ++i) {
      hex += kHex[digest[i] >> 4];
      hex += kHex[digest[i] & 15];
    }
    return hex;
  }

 private:
  [[noreturn]] static void Fail() { throw std::runtime_error("MD5 is not available"); }

  std::unique_ptr<EVP_MD_CTX, ContextFree> context_;
};

}  // namespace

std::string cMD5::MD5(const std::string& sMessage) const {
  Digest digest;
  digest.Update(sMessage.data(), sMessage.size());
  return digest.HexFinal();
}

std::string GetFileHash(const std::filesystem::path& path) {
  const int fd = OpenRegularFile(path.string(), O_RDONLY);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), path.string());
  const ClosingFd closer{fd};
  return HashOpenFile(fd, path.string());
}

std::string HashOpenFile(int fd, const std::string& what) {
  Digest digest;
  std::vector<unsigned char> chunk(kHashChunk);
  for (int64_t offset = 0;;) {
    const size_t got =
        ReadAt(fd, reinterpret_cast<char*>(chunk.data()), chunk.size(), offset, what.c_str());
    if (got == 0) break;
    digest.Update(chunk.data(), got);
    offset += static_cast<int64_t>(got);
  }
  return digest.HexFinal();
}

}  // namespace qel
