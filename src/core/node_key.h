// A node's Ed25519 key pair and the key ID that names it.
#pragma once

#include <memory>
#include <string>
#include <string_view>

// OpenSSL's own declaration of the type, so this header needs none of its headers.
typedef struct evp_pkey_st EVP_PKEY;

namespace qel {

// The key ID of any public key (see NodeKey::ID); empty when it cannot be encoded.
std::string KeyIDOf(EVP_PKEY* key);

class NodeKey {
 public:
  // No key: Valid() is false and ID() empty.
  NodeKey() = default;

  // A fresh key pair; no key when the library cannot make one.
  static NodeKey Fresh();

  // The private key of a PEM text (PKCS#8 "PRIVATE KEY"); no key, with the
  // reason in why, when the text holds no unencrypted Ed25519 private key.
  static NodeKey FromPem(std::string_view pem, std::string& why);

  bool Valid() const { return key_ != nullptr; }

  // SHA-256 of the public key's DER SubjectPublicKeyInfo, as 64 lower-case hex digits: the
  // value `openssl pkey -in KEY -pubout -outform DER | sha256sum` prints. Hashing the public
  // key, not a certificate, lets certificates be renewed without changing identity.
  const std::string& ID() const { return id_; }

  // The private key in PKCS#8 PEM form, unencrypted; empty for no key.
  std::string Pem() const;

  // The key for the library's own use (signing, TLS); owned by this object and valid while it
  // lives; null for no key.
  EVP_PKEY* Get() const { return key_.get(); }

 private:
  struct Free {
    void operator()(EVP_PKEY* key) const;
  };
  explicit NodeKey(EVP_PKEY* key);

  std::unique_ptr<EVP_PKEY, Free> key_;
  std::string id_;
};

// What LoadOrCreateNodeKey found: the key, or no key and why not (a reason
// to follow the file's name, e.g. "cannot be read (Permission denied)").
struct LoadedKey {
  NodeKey key;
  bool created = false;  // the file did not exist and holds a new key now
  std::string why;
};

// The key in the PEM file at path, or a fresh key written there when no file
// exists: made as a temporary file of mode 0600 in the same folder and then
// linked into place, so no reader sees half a key and an existing file (one
// another process wrote meanwhile) is never replaced. Blocks on the file.
LoadedKey LoadOrCreateNodeKey(const std::string& path);

}  // namespace qel
