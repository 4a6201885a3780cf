#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>

#include "tests/support/Scratch.h"
#include "tools/lab/TLSIdentity.h"

namespace corvid::lab {
namespace {

class TLSIdentityTest : public testing::Test {
 protected:
  static std::shared_ptr<X509> load(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "r");
    if (!file) return nullptr;
    std::shared_ptr<X509> certificate(PEM_read_X509(file, nullptr, nullptr, nullptr), X509_free);
    std::fclose(file);
    return certificate;
  }

  // X509_V_OK or the reason why `identity`'s authority does not vouch for the certificate.
  static int verify(const TLSIdentity& identity, const std::string& certificateFile) {
    std::shared_ptr<X509_STORE> store(X509_STORE_new(), X509_STORE_free);
    X509_STORE_add_cert(store.get(), load(identity.caFile()).get());
    std::shared_ptr<X509_STORE_CTX> context(X509_STORE_CTX_new(), X509_STORE_CTX_free);
    const auto certificate = load(certificateFile);
    X509_STORE_CTX_init(context.get(), store.get(), certificate.get(), nullptr);
    X509_verify_cert(context.get());
    return X509_STORE_CTX_get_error(context.get());
  }

  const ScratchFolder scratch;
  const std::string folder = scratch.path();
};

TEST_F(TLSIdentityTest, TheServerCertificateIsGoodForEveryNameOfLoopback) {
  const TLSIdentity identity(folder);
  const std::string file = identity.server().certificateFile;
  EXPECT_EQ(verify(identity, file), X509_V_OK);
  const auto certificate = load(file);
  EXPECT_EQ(X509_check_host(certificate.get(), "localhost", 0, 0, nullptr), 1);
  EXPECT_EQ(X509_check_ip_asc(certificate.get(), "127.0.0.1", 0), 1);
  EXPECT_EQ(X509_check_ip_asc(certificate.get(), "::1", 0), 1);
}

TEST_F(TLSIdentityTest, EachBrokenCertificateIsBrokenInItsOwnWayOnly) {
  const TLSIdentity identity(folder);
  EXPECT_EQ(verify(identity, identity.expired().certificateFile), X509_V_ERR_CERT_HAS_EXPIRED);
  EXPECT_EQ(verify(identity, identity.selfSigned().certificateFile),
            X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
  EXPECT_EQ(verify(identity, identity.wrongHost().certificateFile), X509_V_OK);
  const auto elsewhere = load(identity.wrongHost().certificateFile);
  EXPECT_EQ(X509_check_host(elsewhere.get(), "localhost", 0, 0, nullptr), 0);
  EXPECT_EQ(X509_check_ip_asc(elsewhere.get(), "127.0.0.1", 0), 0);
}

TEST_F(TLSIdentityTest, AnotherIdentitysAuthorityDoesNotVouch) {
  const TLSIdentity identity(folder + "/a");
  const TLSIdentity other(folder + "/b");
  const std::string file = identity.server().certificateFile;
  EXPECT_EQ(verify(identity, file), X509_V_OK);
  EXPECT_EQ(verify(other, file), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
}

TEST_F(TLSIdentityTest, IsMadeOnce) {
  const TLSIdentity first(folder);
  const std::string before = contentOf(first.server().certificateFile);
  EXPECT_NE(before, "");
  const TLSIdentity second(folder);
  EXPECT_EQ(contentOf(second.server().certificateFile), before);
}

TEST_F(TLSIdentityTest, IsMadeAnewWhereAFileIsMissing) {
  const TLSIdentity first(folder);
  const std::string before = contentOf(first.server().certificateFile);
  ASSERT_TRUE(std::filesystem::remove(first.expired().keyFile));
  const TLSIdentity second(folder);
  EXPECT_NE(contentOf(second.server().certificateFile), before);
  EXPECT_EQ(verify(second, second.server().certificateFile), X509_V_OK);
}

TEST_F(TLSIdentityTest, KeysAreTheirOwnersOnly) {
  const TLSIdentity identity(folder);
  EXPECT_EQ(std::filesystem::status(identity.server().keyFile).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(TLSIdentityTest, AFolderThatCannotBeMadeIsAnError) {
  std::ofstream(folder + "/file") << "x";
  EXPECT_THROW(TLSIdentity(folder + "/file/below"), std::runtime_error);
}

}  // namespace
}  // namespace corvid::lab
