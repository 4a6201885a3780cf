// A private certificate authority with server certificates for loopback, kept as PEM files.
#pragma once

#include <string>

namespace corvid::lab {

// A certificate and its private key, as paths of PEM files.
struct TLSCertificate {
  std::string certificateFile;
  std::string keyFile;
};

// The good certificate and the broken ones that a client must refuse. All keys are P-256; a private
// key's file can be read by its owner only.
//
// Threads   constant after construction; any thread.
// Errors    The constructor throws std::runtime_error where the folder cannot be written.
class TLSIdentity {
 public:
  // Uses what stands in `folder`; makes everything anew where a file is missing.
  explicit TLSIdentity(std::string folder);

  // The authority's certificate, for clients to trust.
  std::string caFile() const;

  // Valid for localhost, 127.0.0.1 and ::1, signed by the authority.
  TLSCertificate server() const { return named("server"); }
  // As server(), but its time is over.
  TLSCertificate expired() const { return named("expired"); }
  // Signed by the authority for another host, "elsewhere.invalid".
  TLSCertificate wrongHost() const { return named("wrong-host"); }
  // For the right hosts, but signed by itself, so no authority vouches for it.
  TLSCertificate selfSigned() const { return named("self-signed"); }

 private:
  TLSCertificate named(const std::string& name) const;
  bool isComplete() const;
  void make() const;

  std::string _folder;
};

}  // namespace corvid::lab
