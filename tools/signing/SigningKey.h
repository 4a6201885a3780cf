// The private half of the keys that storebags are signed with.
#pragma once

#include <memory>
#include <string>
#include <string_view>

struct evp_pkey_st;  // OpenSSL's

namespace corvid::signing {

// The digests that a signature can be over.
enum class Digest { sha1, sha256 };

// An RSA key pair that devices take: of RSAPublicKey::leastBits at least.
//
// Threads   constant after construction; any thread.
// Errors    std::runtime_error, one line that names the source and says what helps, where a key
//           cannot be made, read or used.
class SigningKey {
 public:
  // Makes one, which is kept nowhere.
  static SigningKey make(int bits);
  // From a PEM file, whose password, if it has one, is asked for at the terminal; or, where
  // `source` is a URI such as "pkcs11:object=signing", from the OpenSSL provider for its scheme.
  // Such a key may stay where it is.
  static SigningKey open(const std::string& source);
  // Whether that is what open would ask a provider for.
  static bool isURI(std::string_view source);

  // The public half as a DER SubjectPublicKeyInfo, for publicKey.der.
  std::string publicKeyDER() const;
  // 16 hexadecimal digits: what RSAPublicKey::fingerprint says of the public half.
  std::string id() const;
  // RSA PKCS#1 v1.5: the same bytes have the same signature.
  std::string signature(std::string_view bytes, Digest digest = Digest::sha1) const;
  // Writes the private half as PEM to a new file for its owner only, never to an existing one.
  void writePrivateKey(const std::string& file) const;

 private:
  explicit SigningKey(std::shared_ptr<evp_pkey_st> key) : _key(std::move(key)) {}

  std::shared_ptr<evp_pkey_st> _key;
};

}  // namespace corvid::signing
