#include "tools/lab/StorebagSigner.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include "platform/data/Crypto.h"
#include "platform/data/PropertyList.h"

namespace corvid::lab {

namespace {

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error("signing key: " + what);
}

}  // namespace

StorebagSigner::StorebagSigner() : _key(EVP_RSA_gen(2048), EVP_PKEY_free) {
  if (!_key) fail("cannot make one");
}

StorebagSigner::StorebagSigner(const std::string& keyFile) {
  if (std::filesystem::exists(keyFile)) {
    const File file(std::fopen(keyFile.c_str(), "re"));
    if (file) _key.reset(PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
    if (!_key) fail("cannot read " + keyFile);
    return;
  }
  *this = StorebagSigner();
  const mode_t before = umask(0077);
  const File file(std::fopen(keyFile.c_str(), "wxe"));
  umask(before);
  if (!file ||
      PEM_write_PrivateKey(file.get(), _key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1)
    fail("cannot write " + keyFile);
}

std::string StorebagSigner::publicKeyDER() const {
  unsigned char* der = nullptr;
  const int length = i2d_PUBKEY(_key.get(), &der);
  if (length <= 0) fail("cannot encode the public half");
  std::string text(reinterpret_cast<const char*>(der), static_cast<std::size_t>(length));
  OPENSSL_free(der);
  return text;
}

std::string StorebagSigner::signature(std::string_view bytes) const {
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  std::string signed_(static_cast<std::size_t>(EVP_PKEY_get_size(_key.get())), '\0');
  std::size_t length = signed_.size();
  const bool done =
      context != nullptr &&
      EVP_DigestSignInit(context, nullptr, EVP_sha1(), nullptr, _key.get()) == 1 &&
      EVP_DigestSign(context, reinterpret_cast<unsigned char*>(signed_.data()), &length,
                     reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()) == 1;
  EVP_MD_CTX_free(context);
  if (!done) fail("cannot sign");
  signed_.resize(length);
  return signed_;
}

Dictionary StorebagSigner::envelopeFields(std::string_view bag) const {
  return {{"signature", base64Encode(signature(bag))}, {"bag", base64Encode(bag)}};
}

std::string StorebagSigner::envelope(std::string_view bag) const {
  return writeXMLPropertyList(envelopeFields(bag));
}

}  // namespace corvid::lab
