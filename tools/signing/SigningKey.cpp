#include "tools/signing/SigningKey.h"

#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/store.h>
#include <openssl/ui.h>
#include <openssl/x509.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <utility>

#include "platform/data/Crypto.h"
#include "platform/data/LocalFileSystem.h"

namespace corvid::signing {

namespace {

struct Free {
  void operator()(BIO* bytes) const { BIO_free(bytes); }
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  void operator()(OSSL_STORE_CTX* store) const { OSSL_STORE_close(store); }
  void operator()(OSSL_STORE_INFO* info) const { OSSL_STORE_INFO_free(info); }
};
template <class T>
using Owned = std::unique_ptr<T, Free>;

// What the library says of its first error since the last one was taken, which may be nothing.
std::string reasonOfLibrary() {
  const unsigned long code = ERR_get_error();
  const char* reason = code == 0 ? nullptr : ERR_reason_error_string(code);
  ERR_clear_error();
  return reason ? fmt::format(" ({})", reason) : "";
}

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what + reasonOfLibrary());
}

std::string derOf(EVP_PKEY* key) {
  unsigned char* der = nullptr;
  const int length = i2d_PUBKEY(key, &der);
  if (length <= 0) fail("signing key: cannot encode the public half");
  std::string text(reinterpret_cast<const char*>(der), static_cast<std::size_t>(length));
  OPENSSL_free(der);
  return text;
}

// `key` where a device takes what it signs.
std::shared_ptr<EVP_PKEY> usable(EVP_PKEY* key, const std::string& source) {
  std::shared_ptr<EVP_PKEY> owned(key, EVP_PKEY_free);
  const auto publicHalf = RSAPublicKey::fromDER(derOf(key));
  if (!publicHalf)
    fail(fmt::format("{}: {}; no device takes it", source, publicHalf.failure().message));
  return owned;
}

EVP_PKEY* readPEM(const std::string& file) {
  const Result<std::string> text = readRegularFile(file);
  if (!text) throw std::runtime_error(text.failure().message);
  const Owned<BIO> bytes(
      BIO_new_mem_buf(text.value().data(), static_cast<int>(text.value().size())));
  EVP_PKEY* const key =
      bytes ? PEM_read_bio_PrivateKey(bytes.get(), nullptr, nullptr, nullptr) : nullptr;
  if (key) return key;
  if (keyFormOf(text.value()) == KeyForm::publicPEM) {
    ERR_clear_error();
    fail(file + ": a public key; signing takes the private one");
  }
  fail(file + ": no private key in PEM form that can be read");
}

EVP_PKEY* askProvider(const std::string& uri) {
  ERR_clear_error();
  const Owned<OSSL_STORE_CTX> store(
      OSSL_STORE_open(uri.c_str(), UI_get_default_method(), nullptr, nullptr, nullptr));
  if (!store)
    fail(fmt::format(
        "{}: no OpenSSL provider here opens \"{}:\"; openssl.cnf says which are loaded, "
        "`openssl list -providers` names them",
        uri, uri.substr(0, uri.find(':'))));
  OSSL_STORE_expect(store.get(), OSSL_STORE_INFO_PKEY);
  while (!OSSL_STORE_eof(store.get())) {
    const Owned<OSSL_STORE_INFO> info(OSSL_STORE_load(store.get()));
    if (info && OSSL_STORE_INFO_get_type(info.get()) == OSSL_STORE_INFO_PKEY)
      return OSSL_STORE_INFO_get1_PKEY(info.get());
    if (!info && OSSL_STORE_error(store.get())) break;
  }
  fail(uri + ": its provider has no private key there");
}

}  // namespace

bool SigningKey::isURI(std::string_view source) {
  const std::string_view scheme = source.substr(0, source.find(':'));
  constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyz";
  return scheme.size() < source.size() && scheme.size() > 1 &&
         letters.find(scheme.front()) != letters.npos &&
         scheme.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789+-.") == scheme.npos &&
         !std::filesystem::exists(source);
}

SigningKey SigningKey::make(int bits) {
  EVP_PKEY* const key = EVP_RSA_gen(static_cast<unsigned>(bits));
  if (!key) fail("signing key: cannot make one");
  return SigningKey(usable(key, "signing key"));
}

SigningKey SigningKey::open(const std::string& source) {
  return SigningKey(usable(isURI(source) ? askProvider(source) : readPEM(source), source));
}

std::string SigningKey::publicKeyDER() const { return derOf(_key.get()); }

std::string SigningKey::id() const {
  return fmt::format("{:016x}", RSAPublicKey::fromDER(publicKeyDER()).value().fingerprint());
}

std::string SigningKey::signature(std::string_view bytes, Digest digest) const {
  const Owned<EVP_MD_CTX> context(EVP_MD_CTX_new());
  const EVP_MD* const algorithm = digest == Digest::sha1 ? EVP_sha1() : EVP_sha256();
  const auto* const data = reinterpret_cast<const unsigned char*>(bytes.data());
  std::string made(static_cast<std::size_t>(EVP_PKEY_get_size(_key.get())), '\0');
  std::size_t length = made.size();
  if (!context || EVP_DigestSignInit(context.get(), nullptr, algorithm, nullptr, _key.get()) != 1 ||
      EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(made.data()), &length, data,
                     bytes.size()) != 1)
    fail("signing key: cannot sign");
  made.resize(length);
  return made;
}

void SigningKey::writePrivateKey(const std::string& file) const {
  const Owned<BIO> bytes(BIO_new(BIO_s_secmem()));
  char* text = nullptr;
  if (!bytes ||
      PEM_write_bio_PrivateKey(bytes.get(), _key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1)
    fail("signing key: cannot encode the private half");
  const long length = BIO_get_mem_data(bytes.get(), &text);
  if (const auto failure = createRegularFile(file, {text, static_cast<std::size_t>(length)}))
    throw std::runtime_error(failure->message);
}

}  // namespace corvid::signing
