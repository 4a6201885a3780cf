// Signs storebags as a configuration server does.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace corvid::lab {

// An RSA key pair, kept as a PEM file.
//
// Threads   constant after construction; any thread.
// Errors    std::runtime_error where the key cannot be made, read or written.
class StorebagSigner {
 public:
  // Uses the key in `keyFile`; makes it where the file is missing.
  explicit StorebagSigner(const std::string& keyFile);
  ~StorebagSigner();

  // The public half as a DER SubjectPublicKeyInfo, for publicKey.der.
  std::string publicKeyDER() const;
  // RSA PKCS#1 v1.5 over the SHA-1 digest of `bytes`.
  std::string signature(std::string_view bytes) const;
  // The property list that a client gets: "signature" and "bag", both Base64.
  std::string envelope(std::string_view bag) const;

 private:
  struct Key;
  std::unique_ptr<Key> _key;
};

}  // namespace corvid::lab
