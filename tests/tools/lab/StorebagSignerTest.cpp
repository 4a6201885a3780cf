#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "base/Reading.h"
#include "platform/data/Crypto.h"
#include "platform/data/PropertyList.h"
#include "tests/support/SigningKeys.h"
#include "tools/lab/StorebagSigner.h"

namespace corvid::lab {
namespace {

class StorebagSignerTest : public testing::Test {
 protected:
  // Whether a client that has the key takes the bytes for signed.
  static bool isSigned(const StorebagSigner& signer, std::string_view bytes,
                       std::string_view signature) {
    return RSAPublicKey::fromDER(signer.publicKeyDER()).value().verifies(sha1(bytes), signature);
  }

  ScratchRoot root;
  const std::string keyFile = root.path("key.pem");
};

TEST_F(StorebagSignerTest, WhatItSignsVerifiesWithItsPublicKey) {
  const StorebagSigner signer(keyFile);
  for (const std::string& bytes :
       {std::string(), std::string("a\0b", 3), std::string(100'000, 'x')})
    EXPECT_TRUE(isSigned(signer, bytes, signer.signature(bytes)));
}

TEST_F(StorebagSignerTest, NothingElseVerifies) {
  const StorebagSigner signer(signingKeyFile("trusted"));
  const StorebagSigner other(signingKeyFile("strange"));
  EXPECT_TRUE(isSigned(other, "bag", other.signature("bag")));
  EXPECT_FALSE(isSigned(signer, "bag!", signer.signature("bag")));
  EXPECT_FALSE(isSigned(signer, "bag", other.signature("bag")));
  EXPECT_FALSE(isSigned(signer, "bag", ""));
}

TEST_F(StorebagSignerTest, TheEnvelopeHoldsTheBagAndItsSignature) {
  const StorebagSigner signer(signingKeyFile("trusted"));
  const Result<Value> envelope = parsePropertyList(signer.envelope("the bag"));
  ASSERT_TRUE(envelope && envelope.value().dictionary());
  const Dictionary& entries = *envelope.value().dictionary();
  EXPECT_EQ(base64DecodeIgnoringUnknownCharacters(*stringAt(entries, "bag")), "the bag");
  EXPECT_TRUE(isSigned(signer, "the bag",
                       *base64DecodeIgnoringUnknownCharacters(*stringAt(entries, "signature"))));
}

TEST_F(StorebagSignerTest, TheKeyIsMadeOnceAndForItsOwnerOnly) {
  const std::string made = StorebagSigner(keyFile).publicKeyDER();
  EXPECT_EQ(StorebagSigner(keyFile).publicKeyDER(), made);
  EXPECT_EQ(std::filesystem::status(keyFile).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(StorebagSignerTest, AFileThatIsNoKeyIsAnErrorAndStays) {
  root.write("key.pem", "precious");
  EXPECT_THROW(StorebagSigner{keyFile}, std::runtime_error);
  EXPECT_EQ(std::filesystem::file_size(keyFile), 8u);
}

TEST_F(StorebagSignerTest, AFolderThatIsMissingIsAnError) {
  EXPECT_THROW(StorebagSigner{root.path("missing/key.pem")}, std::runtime_error);
}

}  // namespace
}  // namespace corvid::lab
