#include "tests/config/StorebagSigner.h"

#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <stdexcept>

#include "platform/data/Crypto.h"
#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

void require(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(what);
}

template <class Encode>
std::string encoded(Encode encode) {
  unsigned char* bytes = nullptr;
  const int length = encode(&bytes);
  require(length > 0, "the key cannot be written");
  std::string der(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
  OPENSSL_free(bytes);
  return der;
}

}  // namespace

struct StorebagSigner::Key {
  EVP_PKEY* pkey = EVP_RSA_gen(2048);
  ~Key() { EVP_PKEY_free(pkey); }
};

StorebagSigner::StorebagSigner() : _key(std::make_unique<Key>()) {
  require(_key->pkey != nullptr, "no key can be made");
}
StorebagSigner::~StorebagSigner() = default;

std::string StorebagSigner::publicKeyDER() const {
  return encoded([&](unsigned char** bytes) { return i2d_PUBKEY(_key->pkey, bytes); });
}

std::string StorebagSigner::barePublicKeyDER() const {
  return encoded([&](unsigned char** bytes) { return i2d_PublicKey(_key->pkey, bytes); });
}

std::string StorebagSigner::signature(std::string_view bag) const {
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        &EVP_MD_CTX_free);
  const auto* bytes = reinterpret_cast<const unsigned char*>(bag.data());
  std::size_t length = 0;
  require(EVP_DigestSignInit(context.get(), nullptr, EVP_sha1(), nullptr, _key->pkey) == 1 &&
              EVP_DigestSign(context.get(), nullptr, &length, bytes, bag.size()) == 1,
          "nothing can be signed");
  std::string signature(length, '\0');
  require(EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                         bytes, bag.size()) == 1,
          "nothing can be signed");
  signature.resize(length);
  return signature;
}

Dictionary StorebagSigner::envelopeFields(std::string_view bag) const {
  return {{"signature", base64Encode(signature(bag))}, {"bag", base64Encode(bag)}};
}

std::string StorebagSigner::envelope(const Dictionary& storebag) const {
  return writeXMLPropertyList(envelopeFields(writeXMLPropertyList(storebag)));
}

const StorebagSigner& trustedSigner() {
  static const StorebagSigner signer;
  return signer;
}

const StorebagSigner& strangeSigner() {
  static const StorebagSigner signer;
  return signer;
}

}  // namespace corvid
