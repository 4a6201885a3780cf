#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>

#include "platform/data/Crypto.h"
#include "tests/support/Scratch.h"
#include "tests/support/SigningKeys.h"
#include "tests/support/ToolProcess.h"
#include "tools/signing/SigningKey.h"

namespace corvid::signing {
namespace {

using testing::HasSubstr;

// Why it cannot be opened; empty where it can.
std::string refusalOf(const std::string& source) {
  try {
    SigningKey::open(source);
    return {};
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

class SigningKeyTest : public testing::Test {
 protected:
  // A file that the openssl program writes.
  std::string openssl(std::vector<std::string> arguments, const std::string& name) {
    const std::string file = folder.path(name);
    arguments.insert(arguments.end(), {"-out", file});
    EXPECT_EQ(runTool("openssl", std::move(arguments)).status, 0);
    return file;
  }

  const ScratchFolder folder;
};

TEST_F(SigningKeyTest, ItsIDIsThatOfThePublicHalf) {
  const SigningKey key = SigningKey::open(signingKeyFile("trusted"));
  const auto publicHalf = RSAPublicKey::fromDER(key.publicKeyDER());
  EXPECT_EQ(key.id(), fmt::format("{:016x}", publicHalf.value().fingerprint()));
  std::string ofDigest;
  for (std::size_t at = 0; at < 8; ++at)
    ofDigest += fmt::format("{:02x}", sha256(key.publicKeyDER())[at]);
  EXPECT_EQ(key.id(), ofDigest);
}

TEST_F(SigningKeyTest, AFileURIIsOpenedThroughAProvider) {
  const std::string file = signingKeyFile("trusted");
  const SigningKey key = SigningKey::open("file:" + file);
  EXPECT_EQ(key.id(), SigningKey::open(file).id());
  EXPECT_EQ(key.signature("bag"), SigningKey::open(file).signature("bag"));
}

TEST_F(SigningKeyTest, ASchemeWithoutAProviderIsNamed) {
  EXPECT_THAT(refusalOf("pkcs11:object=signing"),
              HasSubstr("pkcs11:object=signing: no OpenSSL provider here opens \"pkcs11:\""));
  EXPECT_THAT(refusalOf("file:" + folder.path("none.pem")), HasSubstr("none.pem"));
}

TEST_F(SigningKeyTest, AFileWhoseNameLooksLikeAURIIsAFile) {
  const std::string file = folder.write("pkcs11:key", contentOf(signingKeyFile("trusted")));
  EXPECT_FALSE(SigningKey::isURI(file));
  EXPECT_FALSE(SigningKey::isURI("key.pem"));
  EXPECT_FALSE(SigningKey::isURI("/keys/a:b"));
  EXPECT_TRUE(SigningKey::isURI("pkcs11:key"));
}

TEST_F(SigningKeyTest, OnlyPrivateKeysThatDevicesTakeAreOpened) {
  EXPECT_THAT(
      refusalOf(openssl({"genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:1024"},
                        "short.pem")),
      HasSubstr("short.pem: an RSA key of 1024 bits, fewer than 2048"));
  EXPECT_THAT(refusalOf(openssl({"ecparam", "-name", "prime256v1", "-genkey"}, "curve.pem")),
              HasSubstr("curve.pem: a key of the kind EC, where RSA is needed"));
  EXPECT_THAT(
      refusalOf(openssl({"rsa", "-in", signingKeyFile("trusted"), "-pubout"}, "public.pem")),
      HasSubstr("public.pem: a public key; signing takes the private one"));
  EXPECT_THAT(refusalOf(folder.write("text", "no key")),
              HasSubstr("text: no private key in PEM form"));
  EXPECT_THAT(refusalOf(folder.path("missing")), HasSubstr("missing: No such file"));
}

TEST_F(SigningKeyTest, APrivateKeyIsWrittenForItsOwnerAndNeverOverAFile) {
  const SigningKey key = SigningKey::open(signingKeyFile("trusted"));
  const std::string file = folder.path("new.pem");
  key.writePrivateKey(file);
  EXPECT_EQ(SigningKey::open(file).id(), key.id());
  EXPECT_EQ(std::filesystem::status(file).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  const std::string precious = folder.write("precious", "precious");
  EXPECT_THROW(key.writePrivateKey(precious), std::runtime_error);
  EXPECT_EQ(contentOf(precious), "precious");
}

}  // namespace
}  // namespace corvid::signing
