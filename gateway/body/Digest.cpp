#include "gateway/body/Digest.h"

#include <openssl/evp.h>

#include <array>
#include <new>

#include "base/Text.h"

namespace corvid::fleet {

namespace {

// Looking it up costs more than a digest.
const EVP_MD* algorithm() {
  static const EVP_MD* const fetched = EVP_MD_fetch(nullptr, "SHA2-256", nullptr);
  return fetched;
}

}  // namespace

Digest::Digest() : _context(EVP_MD_CTX_new()) {
  if (!_context || EVP_DigestInit_ex2(_context.get(), algorithm(), nullptr) != 1)
    throw std::bad_alloc();
}

void Digest::add(std::string_view bytes) {
  EVP_DigestUpdate(_context.get(), bytes.data(), bytes.size());
}

std::string Digest::hexadecimal() {
  std::array<char, EVP_MAX_MD_SIZE> bytes;
  unsigned size = 0;
  EVP_DigestFinal_ex(_context.get(), reinterpret_cast<unsigned char*>(bytes.data()), &size);
  return corvid::hexadecimal(std::string_view(bytes.data(), size));
}

void Digest::Free::operator()(evp_md_ctx_st* context) const { EVP_MD_CTX_free(context); }

}  // namespace corvid::fleet
