// Digests, signature verification and Base64.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

// The library's.
struct evp_md_st;
struct evp_pkey_st;

#include "base/Result.h"

namespace corvid {

using SHA1Digest = std::array<std::uint8_t, 20>;
using SHA256Digest = std::array<std::uint8_t, 32>;

SHA1Digest sha1(std::string_view bytes);
SHA256Digest sha256(std::string_view bytes);
SHA256Digest hmacSHA256(std::string_view key, std::string_view message);

// What the bytes of a key file are, where they are no public key in DER form.
enum class KeyForm { none, publicPEM, privateKey };
KeyForm keyFormOf(std::string_view bytes);

// An RSA public key. Immutable; any thread.
class RSAPublicKey {
 public:
  static constexpr int leastBits = 2048;

  // From a DER SubjectPublicKeyInfo or a bare RSAPublicKey. The failure's code is EKEYREJECTED for
  // a key that is too short or of another kind, 0 for what is no key.
  static Result<RSAPublicKey> fromDER(std::string_view der);

  // RSA PKCS#1 v1.5 with the digest's identifier over a digest made before.
  bool verifies(const SHA1Digest& digest, std::string_view signature) const;
  bool verifies(const SHA256Digest& digest, std::string_view signature) const;
  // Tells keys apart in log lines: the first eight bytes of the SHA-256 of its
  // SubjectPublicKeyInfo.
  std::uint64_t fingerprint() const;

 private:
  explicit RSAPublicKey(std::shared_ptr<evp_pkey_st> key) : _key(std::move(key)) {}

  bool verifies(const evp_md_st* algorithm, std::span<const std::uint8_t> digest,
                std::string_view signature) const;

  std::shared_ptr<evp_pkey_st> _key;
};

// Standard alphabet, padded, without line breaks.
std::string base64Encode(std::string_view bytes);
// Characters outside the alphabet are skipped. Nothing when what is left is no Base64.
std::optional<std::string> base64DecodeIgnoringUnknownCharacters(std::string_view text);

}  // namespace corvid
