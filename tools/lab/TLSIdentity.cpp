#include "tools/lab/TLSIdentity.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>

namespace corvid::lab {
namespace {

struct Free {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
  void operator()(std::FILE* file) const { std::fclose(file); }
};
template <class T>
using Owned = std::unique_ptr<T, Free>;

constexpr long day = 24 * 60 * 60;
constexpr const char* loopbackNames = "DNS:localhost,IP:127.0.0.1,IP:::1";
constexpr const char* variants[] = {"server", "expired", "wrong-host", "self-signed"};

void require(bool done, const std::string& what) {
  if (!done) throw std::runtime_error("cannot make a TLS identity: " + what);
}

std::uint32_t randomNumber() {
  std::uint32_t number = 0;
  require(RAND_bytes(reinterpret_cast<unsigned char*>(&number), sizeof number) == 1, "number");
  return number;
}

struct Subject {
  const char* commonName;
  const char* hosts = nullptr;  // none: a certificate authority
  long validFrom = -day;        // seconds from now
  long validUntil = 3650 * day;
};

// A key with its certificate, and the authority that others are signed by.
struct Pair {
  Owned<EVP_PKEY> key;
  Owned<X509> certificate;
};

void addExtension(X509* certificate, X509* issuer, int name, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  Owned<X509_EXTENSION> extension(X509V3_EXT_conf_nid(nullptr, &context, name, value));
  require(extension && X509_add_ext(certificate, extension.get(), -1), "extension");
}

// Signed by `authority`, or by itself where there is none.
Pair makePair(const Subject& subject, const Pair* authority) {
  Pair pair{Owned<EVP_PKEY>(EVP_EC_gen("P-256")), Owned<X509>(X509_new())};
  X509* certificate = pair.certificate.get();
  require(pair.key && certificate, "key");

  X509_set_version(certificate, X509_VERSION_3);
  ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), randomNumber());
  X509_gmtime_adj(X509_getm_notBefore(certificate), subject.validFrom);
  X509_gmtime_adj(X509_getm_notAfter(certificate), subject.validUntil);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(subject.commonName), -1, -1, 0);
  X509_set_pubkey(certificate, pair.key.get());

  X509* issuer = authority ? authority->certificate.get() : certificate;
  X509_set_issuer_name(certificate, X509_get_subject_name(issuer));
  addExtension(certificate, issuer, NID_subject_key_identifier, "hash");
  if (subject.hosts) {
    addExtension(certificate, issuer, NID_basic_constraints, "critical,CA:FALSE");
    addExtension(certificate, issuer, NID_key_usage, "critical,digitalSignature");
    addExtension(certificate, issuer, NID_ext_key_usage, "serverAuth");
    addExtension(certificate, issuer, NID_subject_alt_name, subject.hosts);
  } else {
    addExtension(certificate, issuer, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(certificate, issuer, NID_key_usage, "critical,keyCertSign,cRLSign");
  }
  EVP_PKEY* signer = authority ? authority->key.get() : pair.key.get();
  require(X509_sign(certificate, signer, EVP_sha256()) > 0, "signature");
  return pair;
}

// The file appears whole or not at all.
template <class Write>
void writeFile(const std::string& path, mode_t mode, Write&& write) {
  const std::string unfinished = path + ".tmp";
  {
    Owned<std::FILE> file(std::fopen(unfinished.c_str(), "w"));
    require(file && fchmod(fileno(file.get()), mode) == 0 && write(file.get()) &&
                std::fflush(file.get()) == 0,
            unfinished);
  }
  std::filesystem::rename(unfinished, path);
}

void writePair(const Pair& pair, const TLSCertificate& files) {
  writeFile(files.keyFile, 0600, [&](std::FILE* file) {
    return PEM_write_PrivateKey(file, pair.key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  });
  writeFile(files.certificateFile, 0644,
            [&](std::FILE* file) { return PEM_write_X509(file, pair.certificate.get()); });
}

}  // namespace

TLSIdentity::TLSIdentity(std::string folder) : _folder(std::move(folder)) {
  if (!isComplete()) make();
}

std::string TLSIdentity::caFile() const { return named("ca").certificateFile; }

TLSCertificate TLSIdentity::named(const std::string& name) const {
  return {_folder + "/" + name + ".pem", _folder + "/" + name + ".key"};
}

bool TLSIdentity::isComplete() const {
  for (const char* name : variants) {
    const TLSCertificate files = named(name);
    if (!std::filesystem::exists(files.certificateFile) || !std::filesystem::exists(files.keyFile))
      return false;
  }
  return std::filesystem::exists(caFile());
}

void TLSIdentity::make() const {
  std::filesystem::create_directories(_folder);
  // Authorities of one name would be taken for each other.
  const std::string name = "corvid-lab authority " + std::to_string(randomNumber());
  const Pair authority = makePair({.commonName = name.c_str()}, nullptr);
  writePair(makePair({"localhost", loopbackNames}, &authority), server());
  writePair(makePair({"localhost", loopbackNames, -2 * day, -day}, &authority), expired());
  writePair(makePair({"elsewhere.invalid", "DNS:elsewhere.invalid"}, &authority), wrongHost());
  writePair(makePair({"localhost", loopbackNames}, nullptr), selfSigned());
  // Last: where it stands, the others are its own.
  writePair(authority, named("ca"));
}

}  // namespace corvid::lab
