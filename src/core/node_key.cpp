#include "core/node_key.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace qel {
namespace {

// A PEM Ed25519 key is about 120 bytes; anything past this is not one, and
// reading it whole would only cost memory.
constexpr size_t kMaxKeyFile = 64 * 1024;

std::string SystemReason(const char* what, int error) {
  return std::string(what) + " (" + std::strerror(error) + ")";
}

// Private key text should not linger in freed memory.
struct Wiped {
  std::string text;
  ~Wiped() { OPENSSL_cleanse(text.data(), text.size()); }
};

// Keys are stored unencrypted; a passphrase callback that answers nothing
// turns an encrypted one into a clear refusal instead of a terminal prompt.
int RefusePassword(char*, int, int, void* asked) {
  *static_cast<bool*>(asked) = true;
  return -1;
}

// The whole file, or why not; ENOENT is left for the caller to tell apart.
int ReadKeyFile(const std::string& path, Wiped& into, std::string& why) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  int error = 0;
  char buffer[4096];
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) error = errno;
    if (n <= 0) break;
    into.text.append(buffer, static_cast<size_t>(n));
    if (into.text.size() > kMaxKeyFile) {
      why = "is too large to be a key file";
      break;
    }
  }
  OPENSSL_cleanse(buffer, sizeof buffer);
  close(fd);
  if (error != 0) why = SystemReason("cannot be read", error);
  return 0;
}

bool WriteAll(int fd, const std::string& text) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Writes pem as a new file at path, never over an existing one: 0 when it
// did, EEXIST when a file appeared there meanwhile, else the error.
int CreateKeyFile(const std::string& path, const std::string& pem) {
  std::string temp = path + ".XXXXXX";
  const int fd = mkostemp(temp.data(), O_CLOEXEC);  // O_EXCL, mode 0600
  if (fd < 0) return errno;
  int error = 0;
  if (!WriteAll(fd, pem) || fsync(fd) != 0) error = errno != 0 ? errno : EIO;
  if (close(fd) != 0 && error == 0) error = errno;
  // link, unlike rename, fails when the name exists: a key someone else made
  // is never replaced.
  if (error == 0 && link(temp.c_str(), path.c_str()) != 0) error = errno;
  unlink(temp.c_str());
  return error;
}

}  // namespace

std::string KeyIDOf(EVP_PKEY* key) {
  std::string id;
  unsigned char* der = nullptr;
  const int size = key ? i2d_PUBKEY(key, &der) : 0;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestSize = 0;
  if (size <= 0 ||
      !EVP_Digest(der, static_cast<size_t>(size), digest, &digestSize, EVP_sha256(), nullptr)) {
    ERR_clear_error();
  } else {
    static constexpr char kHex[] = "0123456789abcdef";
    for (unsigned int i = 0; i < digestSize; ++i) {
      id += kHex[digest[i] >> 4];
      id += kHex[digest[i] & 15];
    }
  }
  OPENSSL_free(der);
  return id;
}

void NodeKey::Free::operator()(EVP_PKEY* key) const {
  EVP_PKEY_free(key);
}

NodeKey::NodeKey(EVP_PKEY* key) : key_(key), id_(KeyIDOf(key)) {
  if (id_.empty()) key_.reset();  // a key without an ID is no use to anyone
}

NodeKey NodeKey::Fresh() {
  EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
  if (!key) {
    ERR_clear_error();
    return {};
  }
  return NodeKey(key);
}

NodeKey NodeKey::FromPem(std::string_view pem, std::string& why) {
  BIO* in = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  bool asked = false;
  EVP_PKEY* key = in ? PEM_read_bio_PrivateKey(in, nullptr, RefusePassword, &asked) : nullptr;
  BIO_free(in);
  ERR_clear_error();
  if (!key) {
    why = asked ? "holds an encrypted key; key files are kept unencrypted"
                : "holds no PEM private key";
    return {};
  }
  if (!EVP_PKEY_is_a(key, "ED25519")) {
    const char* type = EVP_PKEY_get0_type_name(key);
    why = std::string("holds a key of type ") + (type ? type : "unknown") + ", not Ed25519";
    EVP_PKEY_free(key);
    return {};
  }
  NodeKey result(key);
  if (!result.Valid()) why = "holds a key whose public half cannot be encoded";
  return result;
}

std::string NodeKey::Pem() const {
  std::string pem;
  BIO* out = key_ ? BIO_new(BIO_s_mem()) : nullptr;
  if (out && PEM_write_bio_PrivateKey(out, key_.get(), nullptr, nullptr, 0, nullptr, nullptr)) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(out, &data);
    if (size > 0) pem.assign(data, static_cast<size_t>(size));
  }
  ERR_clear_error();
  BIO_free(out);  // a memory BIO clears its buffer when freed
  return pem;
}

LoadedKey LoadOrCreateNodeKey(const std::string& path) {
  LoadedKey result;
  Wiped text;
  int error = ReadKeyFile(path, text, result.why);
  if (error == ENOENT) {
    result.key = NodeKey::Fresh();
    if (!result.key.Valid()) {
      result.why = "cannot be created: no key could be made";
      return result;
    }
    const Wiped pem{result.key.Pem()};
    error = CreateKeyFile(path, pem.text);
    if (error == 0) {
      result.created = true;
      return result;
    }
    result.key = NodeKey();
    if (error != EEXIST) {
      result.why = SystemReason("cannot be created", error);
      return result;
    }
    // Another process made it first: its key is the one to use.
    error = ReadKeyFile(path, text, result.why);
  }
  if (error != 0) {
    result.why = SystemReason("cannot be read", error);
  } else if (result.why.empty()) {
    result.key = NodeKey::FromPem(text.text, result.why);
  }
  return result;
}

}  // namespace qel
