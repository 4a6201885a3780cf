#include <gtest/gtest.h>

#include <vector>

#include "base/Reading.h"
#include "platform/data/Crypto.h"
#include "platform/data/PropertyList.h"
#include "tests/support/SigningKeys.h"
#include "tools/signing/Envelope.h"

namespace corvid::signing {
namespace {

std::vector<SigningKey> twoKeys() {
  return {SigningKey::open(signingKeyFile("trusted")), SigningKey::open(signingKeyFile("strange"))};
}

TEST(SignedEnvelope, HasTheFirstKeysSignaturesAndThoseOfEachInTheOrderGiven) {
  const auto keys = twoKeys();
  const Dictionary fields = envelopeFields(keys, "the bag");
  EXPECT_EQ(fields.size(), 4u);
  EXPECT_EQ(*stringAt(fields, "bag"), base64Encode("the bag"));
  const Array& signatures = *arrayAt(fields, "signatures");
  ASSERT_EQ(signatures.size(), 2u);
  for (std::size_t at = 0; at < 2; ++at)
    EXPECT_EQ(
        signatures[at],
        Value(Dictionary{
            {"keyID", keys[at].id()},
            {"signature", base64Encode(keys[at].signature("the bag", Digest::sha1))},
            {"signatureSHA256", base64Encode(keys[at].signature("the bag", Digest::sha256))}}));
  for (const char* name : {"signature", "signatureSHA256"})
    EXPECT_EQ(*stringAt(fields, name), *stringAt(*signatures[0].dictionary(), name));
}

TEST(SignedEnvelope, IsTheSameTextForTheSameKeysAndBytes) {
  const std::string made = envelope(twoKeys(), "the bag");
  EXPECT_EQ(envelope(twoKeys(), "the bag"), made);
  EXPECT_NE(envelope(twoKeys(), "another"), made);
  EXPECT_EQ(parsePropertyList(made).value(), Value(envelopeFields(twoKeys(), "the bag")));
}

}  // namespace
}  // namespace corvid::signing
