#include <fmt/format.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <thread>
#include <vector>

#include "base/Text.h"
#include "platform/data/Crypto.h"
#include "tests/support/Scratch.h"
#include "tests/support/SigningKeys.h"

namespace corvid {
namespace {

TEST(Digest, MatchesThePublishedVectors) {
  EXPECT_EQ(hexadecimal(sha1("")), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(hexadecimal(sha1("abc")), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(hexadecimal(sha256("")),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(hexadecimal(sha256("abc")),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Digest, WithAKeyMatchesThePublishedVectors) {
  EXPECT_EQ(hexadecimal(hmacSHA256("Jefe", "what do ya want for nothing?")),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_EQ(hexadecimal(hmacSHA256(std::string(131, '\xAA'),
                                   "Test Using Larger Than Block-Size Key - Hash Key First")),
            "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
}

TEST(Digest, ThreadsDoNotDisturbEachOther) {
  const SHA256Digest expected = sha256("abc");
  std::vector<std::thread> threads;
  std::vector<int> wrong(4, 0);
  for (std::size_t t = 0; t < wrong.size(); ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 500; ++i) {
        sha1(std::string(static_cast<std::size_t>(i), 'x'));
        wrong[t] += sha256("abc") != expected;
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<int>(4, 0));
}

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Context = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

template <class Encode>
std::string der(Encode encode, const Key& key) {
  unsigned char* bytes = nullptr;
  const int length = encode(key.get(), &bytes);
  const std::string result(reinterpret_cast<char*>(bytes), static_cast<std::size_t>(length));
  OPENSSL_free(bytes);
  return result;
}

class RSAPublicKeyTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { pair = new Key(EVP_RSA_gen(2048), &EVP_PKEY_free); }
  static void TearDownTestSuite() { delete pair; }

  static std::string subjectPublicKeyInfo() { return der(i2d_PUBKEY, *pair); }
  static std::string bareKey() { return der(i2d_PublicKey, *pair); }

  // Signs a digest of `method` made over `bytes`.
  static std::string signature(std::string_view bytes, const EVP_MD* method = EVP_sha1(),
                               int rsaPadding = RSA_PKCS1_PADDING) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, method, nullptr);
    const Context context(EVP_PKEY_CTX_new(pair->get(), nullptr), &EVP_PKEY_CTX_free);
    EXPECT_EQ(EVP_PKEY_sign_init(context.get()), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(context.get(), rsaPadding), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_signature_md(context.get(), method), 1);
    std::string result(256, '\0');
    std::size_t size = result.size();
    EXPECT_EQ(EVP_PKEY_sign(context.get(), reinterpret_cast<unsigned char*>(result.data()), &size,
                            digest, length),
              1);
    return result;
  }

  static inline Key* pair = nullptr;
};

TEST_F(RSAPublicKeyTest, VerifiesWithBothFormsOfTheKey) {
  for (const std::string& form : {subjectPublicKeyInfo(), bareKey()}) {
    const auto key = RSAPublicKey::fromDER(form);
    ASSERT_TRUE(key);
    EXPECT_TRUE(key.value().verifies(sha1("the bag"), signature("the bag")));
  }
}

TEST_F(RSAPublicKeyTest, RefusesAnotherDigestAndAnAlteredSignature) {
  const auto key = RSAPublicKey::fromDER(subjectPublicKeyInfo());
  ASSERT_TRUE(key);
  std::string altered = signature("the bag");
  EXPECT_FALSE(key.value().verifies(sha1("the bug"), altered));
  altered[100] = static_cast<char>(altered[100] ^ 1);
  EXPECT_FALSE(key.value().verifies(sha1("the bag"), altered));
}

TEST_F(RSAPublicKeyTest, RefusesSignaturesOfAnotherSchemeOrSize) {
  const auto key = RSAPublicKey::fromDER(bareKey());
  ASSERT_TRUE(key);
  EXPECT_FALSE(key.value().verifies(sha1("the bag"), signature("the bag", EVP_sha256())));
  EXPECT_FALSE(key.value().verifies(sha1("the bag"),
                                    signature("the bag", EVP_sha1(), RSA_PKCS1_PSS_PADDING)));
  EXPECT_FALSE(key.value().verifies(sha1("the bag"), ""));
  EXPECT_FALSE(key.value().verifies(sha1("the bag"), signature("the bag").substr(1)));
  EXPECT_FALSE(key.value().verifies(sha1("the bag"), signature("the bag") + "x"));
}

TEST_F(RSAPublicKeyTest, RefusesBytesThatAreNoKey) {
  const std::string whole = subjectPublicKeyInfo();
  EXPECT_FALSE(RSAPublicKey::fromDER(""));
  EXPECT_FALSE(RSAPublicKey::fromDER("not a key"));
  EXPECT_FALSE(RSAPublicKey::fromDER(whole.substr(0, whole.size() - 1)));
  EXPECT_FALSE(RSAPublicKey::fromDER(whole + '\0'));
}

TEST_F(RSAPublicKeyTest, RefusesKeysOfAnotherAlgorithm) {
  const Key curve(EVP_EC_gen("P-256"), &EVP_PKEY_free);
  ASSERT_TRUE(curve);
  const auto refused = RSAPublicKey::fromDER(der(i2d_PUBKEY, curve));
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.failure().message, "a key of the kind EC, where RSA is needed");
  EXPECT_EQ(refused.failure().code, EKEYREJECTED);
}

TEST_F(RSAPublicKeyTest, RefusesShortKeysInBothForms) {
  const Key shortKey(EVP_RSA_gen(2040), &EVP_PKEY_free);
  ASSERT_TRUE(shortKey);
  for (const std::string& form : {der(i2d_PUBKEY, shortKey), der(i2d_PublicKey, shortKey)}) {
    const auto refused = RSAPublicKey::fromDER(form);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.failure().message, "an RSA key of 2040 bits, fewer than 2048");
    EXPECT_EQ(refused.failure().code, EKEYREJECTED);
  }
}

TEST_F(RSAPublicKeyTest, RefusalsLeaveNothingInTheErrorQueue) {
  ERR_clear_error();
  const auto key = RSAPublicKey::fromDER(bareKey());
  ASSERT_TRUE(key);
  EXPECT_FALSE(RSAPublicKey::fromDER("not a key"));
  EXPECT_FALSE(key.value().verifies(sha1("x"), "not a signature"));
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(RSAPublicKeyTest, AFingerprintIsThatOfTheWholeFormsDigest) {
  const std::string form = subjectPublicKeyInfo();
  const std::string digest = hexadecimal(sha256(form));
  for (const std::string& each : {form, bareKey()}) {
    const auto key = RSAPublicKey::fromDER(each);
    ASSERT_TRUE(key);
    EXPECT_EQ(fmt::format("{:016x}", key.value().fingerprint()), digest.substr(0, 16));
  }
}

TEST_F(RSAPublicKeyTest, AMovedKeyGoesOnVerifying) {
  auto first = RSAPublicKey::fromDER(bareKey());
  ASSERT_TRUE(first);
  const RSAPublicKey second = std::move(first).value();
  EXPECT_TRUE(second.verifies(sha1("the bag"), signature("the bag")));
}

TEST(KeyForm, TellsWhatIsNoPublicKeyInDERForm) {
  const std::string pair = contentOf(signingKeyFile("trusted"));
  const ScratchFolder scratch;
  const auto converted = [&](const char* options) {
    const std::string file = scratch.path("key");
    const std::string command =
        fmt::format("openssl pkey -in {} {} -out {}", signingKeyFile("trusted"), options, file);
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    return contentOf(file);
  };
  EXPECT_EQ(keyFormOf(pair), KeyForm::privateKey);
  EXPECT_EQ(keyFormOf(converted("-outform DER")), KeyForm::privateKey);
  EXPECT_EQ(keyFormOf(converted("-aes256 -passout pass:secret")), KeyForm::privateKey);
  EXPECT_EQ(keyFormOf(converted("-aes256 -traditional -passout pass:secret")), KeyForm::privateKey);
  EXPECT_EQ(keyFormOf(converted("-pubout")), KeyForm::publicPEM);
  EXPECT_EQ(keyFormOf("-----BEGIN PUBLIC KEY-----"), KeyForm::none);
  EXPECT_EQ(keyFormOf(pair.substr(0, pair.size() / 2)), KeyForm::none);
  EXPECT_EQ(keyFormOf(""), KeyForm::none);
}

}  // namespace
}  // namespace corvid
