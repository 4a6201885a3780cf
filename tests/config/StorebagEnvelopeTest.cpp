#include <gtest/gtest.h>

#include "base/Reading.h"
#include "config/StorebagEnvelope.h"
#include "platform/data/Crypto.h"
#include "platform/data/PropertyList.h"
#include "tests/config/Signers.h"
#include "tests/fakes/CapturedLog.h"
#include "tests/fakes/LoggedFields.h"

namespace corvid {
namespace {

const Dictionary storebag{
    {"release", Dictionary{{"httpPost", Dictionary{{"batchSize", 10}, {"rate", 0.5}}}}},
    {"version", "7.1"},
    {"refresh_cycle", 600},
};

// As a fetch does it: what is refused is told.
std::optional<Dictionary> storebagFromEnvelope(std::string_view envelope, std::string_view der) {
  OpenedEnvelope opened = openEnvelope(envelope, keysOf(der));
  logRefusal(opened);
  return std::move(opened.storebag);
}

struct StorebagEnvelope : testing::Test {
  std::optional<Dictionary> open(const Dictionary& fields) {
    return open(writeXMLPropertyList(fields));
  }
  std::optional<Dictionary> open(std::string_view envelope) {
    return storebagFromEnvelope(envelope, key);
  }
  bool refusedAsForged() {
    const auto errors = log.texts(LogLevel::error);
    return log.lines().size() == 1 && errors.size() == 1 &&
           errors[0].starts_with("fetchStorebagWithName: Signature can not be verified, 0x");
  }

  const lab::StorebagSigner& signer = trustedSigner();
  const std::string key = signer.publicKeyDER();
  const std::string bag = writeXMLPropertyList(storebag);
  CapturedLog log;
};

TEST_F(StorebagEnvelope, TheLinesOfARefusalHaveItsReasonBesideThem) {
  const LoggedFields logged;
  open("no property list");
  EXPECT_EQ(logged.last("fetchStorebagWithName: propertyList").reason, "storebagMalformed");
  EXPECT_EQ(logged.last(signatureMissing).reason, "storebagMalformed");
  open(Dictionary{{"bag", "x"}});
  EXPECT_EQ(logged.last(signatureMissing).reason, "storebagUnverified");
  storebagFromEnvelope(enveloped(signer, storebag), strangeSigner().publicKeyDER());
  EXPECT_EQ(logged.last("fetchStorebagWithName: Signature can not be verified").reason,
            "storebagUnverified");
}

TEST_F(StorebagEnvelope, OpensASignedStorebagAndLogsNothing) {
  EXPECT_EQ(open(enveloped(signer, storebag)), storebag);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(StorebagEnvelope, EitherListMayBeXMLOrBinary) {
  const std::string binaryBag = writeBinaryPropertyList(storebag);
  EXPECT_EQ(open(writeXMLPropertyList(signer.envelopeFields(binaryBag))), storebag);
  EXPECT_EQ(open(writeBinaryPropertyList(signer.envelopeFields(bag))), storebag);
  EXPECT_EQ(open(writeBinaryPropertyList(signer.envelopeFields(binaryBag))), storebag);
}

TEST_F(StorebagEnvelope, TakesTheKeyInItsBareFormToo) {
  EXPECT_EQ(storebagFromEnvelope(enveloped(signer, storebag), barePublicKeyDER(signer)), storebag);
}

TEST_F(StorebagEnvelope, OtherEntriesOfTheEnvelopeDoNotMatter) {
  Dictionary fields = signer.envelopeFields(bag);
  fields.set("more", Array{1, 2});
  EXPECT_EQ(open(fields), storebag);
}

TEST_F(StorebagEnvelope, CharactersOutsideTheBase64AlphabetAreIgnored) {
  Dictionary fields = signer.envelopeFields(bag);
  for (const std::string name : {"signature", "bag"}) {
    std::string text = *fields.find(name)->string();
    for (std::size_t at = 60; at < text.size(); at += 62) text.insert(at, "\n ");
    fields.set(name, " \t" + text + "\n*");
  }
  EXPECT_EQ(open(fields), storebag);
}

TEST_F(StorebagEnvelope, AnEmptyBodyIsAParseErrorAndHasNoSignature) {
  EXPECT_FALSE(open(""));
  const auto errors = log.texts(LogLevel::error);
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_TRUE(errors[0].starts_with("fetchStorebagWithName: propertyListWithData error "));
  EXPECT_GT(errors[0].size(),
            std::string("fetchStorebagWithName: propertyListWithData error ").size());
  EXPECT_EQ(errors[1], signatureMissing);
}

TEST_F(StorebagEnvelope, ADamagedListIsAParseErrorAndHasNoSignature) {
  const std::string whole = enveloped(signer, storebag);
  EXPECT_FALSE(open(std::string_view(whole).substr(0, whole.size() / 2)));
  const auto errors = log.texts(LogLevel::error);
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_TRUE(errors[0].starts_with("fetchStorebagWithName: propertyListWithData error "));
  EXPECT_EQ(errors[1], signatureMissing);
}

TEST_F(StorebagEnvelope, AListThatIsNoDictionaryHasNoSignature) {
  for (const Value& list : {Value(Array{"signature", "bag"}), Value("signature"), Value(7)}) {
    log.clear();
    EXPECT_FALSE(open(writeXMLPropertyList(list)));
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(log.has(LogLevel::error, signatureMissing));
  }
}

TEST_F(StorebagEnvelope, ASignatureThatIsMissingOrOfAnotherTypeIsTold) {
  Dictionary fields = signer.envelopeFields(bag);
  fields.erase("signature");
  EXPECT_FALSE(open(fields));
  EXPECT_EQ(log.count(LogLevel::error, signatureMissing), 1);

  for (const Value& wrong :
       {Value(7), Value(0.5), Value(true), Value(Date{7}), Value(Array{fields}), Value(fields),
        Value(Data{signer.signature(bag)})}) {
    log.clear();
    fields.set("signature", wrong);
    EXPECT_FALSE(open(fields));
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(log.has(LogLevel::error, signatureMissing));
  }
}

TEST_F(StorebagEnvelope, WithoutAUsableKeyNothingIsLogged) {
  const std::string envelope = enveloped(signer, storebag);
  for (const std::string_view unusable :
       {std::string_view(), std::string_view("no key"), std::string_view(key).substr(0, 100)})
    EXPECT_FALSE(storebagFromEnvelope(envelope, unusable));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(StorebagEnvelope, AMissingSignatureIsToldEvenWithoutAKey) {
  EXPECT_FALSE(storebagFromEnvelope(writeXMLPropertyList(Dictionary{}), ""));
  EXPECT_TRUE(log.has(LogLevel::error, signatureMissing));
}

TEST_F(StorebagEnvelope, ASignatureThatIsNoBase64YieldsNothing) {
  Dictionary fields = signer.envelopeFields(bag);
  fields.set("signature", "A");
  EXPECT_FALSE(open(fields));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(StorebagEnvelope, ABagThatIsMissingOrOfAnotherTypeYieldsNothing) {
  Dictionary fields = signer.envelopeFields(bag);
  fields.erase("bag");
  EXPECT_FALSE(open(fields));
  for (const Value& wrong : {Value(7), Value(0.5), Value(true), Value(Date{7}), Value(Data{bag}),
                             Value(storebag), Value(Array{base64Encode(bag)})}) {
    fields.set("bag", wrong);
    EXPECT_FALSE(open(fields));
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(StorebagEnvelope, ABagThatIsNoBase64YieldsNothing) {
  Dictionary fields = signer.envelopeFields(bag);
  fields.set("bag", "A");
  EXPECT_FALSE(open(fields));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(StorebagEnvelope, OneAlteredByteAnywhereInTheBagIsRefused) {
  Dictionary fields = signer.envelopeFields(bag);
  for (std::size_t at = 0; at < bag.size(); at += 7) {
    log.clear();
    std::string altered = bag;
    altered[at] = static_cast<char>(altered[at] ^ 1);
    fields.set("bag", base64Encode(altered));
    EXPECT_FALSE(open(fields)) << at;
    EXPECT_TRUE(refusedAsForged()) << at;
  }
}

TEST_F(StorebagEnvelope, OneAlteredByteAnywhereInTheSignatureIsRefused) {
  Dictionary fields = signer.envelopeFields(bag);
  const std::string signature = signer.signature(bag);
  for (std::size_t at = 0; at < signature.size(); at += 17) {
    log.clear();
    std::string altered = signature;
    altered[at] = static_cast<char>(altered[at] ^ 1);
    fields.set("signature", base64Encode(altered));
    EXPECT_FALSE(open(fields)) << at;
    EXPECT_TRUE(refusedAsForged()) << at;
  }
}

TEST_F(StorebagEnvelope, ASignatureOfAnotherLengthIsRefused) {
  Dictionary fields = signer.envelopeFields(bag);
  const std::string signature = signer.signature(bag);
  for (const std::string& other :
       {std::string(), signature.substr(1), signature + "x", std::string(4096, 'x')}) {
    log.clear();
    fields.set("signature", base64Encode(other));
    EXPECT_FALSE(open(fields)) << other.size();
    EXPECT_TRUE(refusedAsForged()) << other.size();
  }
}

TEST_F(StorebagEnvelope, AnotherKeysSignatureIsRefused) {
  EXPECT_FALSE(open(enveloped(strangeSigner(), storebag)));
  EXPECT_TRUE(refusedAsForged());
}

TEST_F(StorebagEnvelope, ASignedBagThatIsNoPropertyListYieldsNothing) {
  EXPECT_FALSE(open(signer.envelopeFields("no property list")));
  EXPECT_FALSE(open(signer.envelopeFields("")));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(StorebagEnvelope, ASignedBagThatIsNoDictionaryYieldsNothing) {
  EXPECT_FALSE(open(signer.envelopeFields(writeXMLPropertyList(Array{storebag}))));
  EXPECT_FALSE(open(signer.envelopeFields(writeXMLPropertyList("7.1"))));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(StorebagEnvelope, ABagNestedTooDeepYieldsNothing) {
  const auto nested = [](std::size_t levels) {
    Value value = "leaf";
    for (std::size_t level = 0; level < levels; ++level) value = Array{value};
    return writeXMLPropertyList(Dictionary{{"deep", value}});
  };
  EXPECT_TRUE(open(signer.envelopeFields(nested(PropertyListLimits{}.depth / 2))));
  EXPECT_FALSE(open(signer.envelopeFields(nested(PropertyListLimits{}.depth + 1))));
  EXPECT_FALSE(open(signer.envelopeFields(nested(300))));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(StorebagEnvelope, ABagOfTooManyValuesYieldsNothing) {
  const auto wide = [](std::size_t values) {
    return writeBinaryPropertyList(Dictionary{{"wide", Array(values, 1)}});
  };
  EXPECT_TRUE(open(signer.envelopeFields(wide(PropertyListLimits{}.values / 2))));
  EXPECT_FALSE(open(signer.envelopeFields(wide(PropertyListLimits{}.values + 1))));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(StorebagEnvelope, AnEnvelopePastTheLimitsIsAParseErrorAndHasNoSignature) {
  std::string deep;
  for (std::size_t level = 0; level < 100'000; ++level) deep += "<array>";
  Dictionary large = signer.envelopeFields(bag);
  large.set("padding", std::string(PropertyListLimits{}.bytes, 'A'));
  for (const std::string& envelope : {deep, writeXMLPropertyList(large)}) {
    log.clear();
    EXPECT_FALSE(open(envelope));
    EXPECT_EQ(log.texts(LogLevel::error).size(), 2u);
    EXPECT_EQ(log.texts(LogLevel::error).back(), signatureMissing);
  }
}

TEST_F(StorebagEnvelope, AnyKeyOfTheDeviceMayVerifyIt) {
  std::vector<RSAPublicKey> keys = keysOf(strangeSigner().publicKeyDER());
  keys.push_back(keysOf(key).front());
  const OpenedEnvelope opened = openEnvelope(enveloped(signer, storebag), keys);
  EXPECT_EQ(opened.storebag, storebag);
  EXPECT_EQ(opened.key, keys[1].fingerprint());
}

TEST_F(StorebagEnvelope, EachKeyThatRefusesIsNamed) {
  std::vector<RSAPublicKey> keys = keysOf(strangeSigner().publicKeyDER());
  keys.push_back(keysOf(key).front());
  Dictionary fields = signer.envelopeFields(bag);
  fields.set("bag", base64Encode(bag + " "));
  logRefusal(openEnvelope(writeXMLPropertyList(fields), keys));
  EXPECT_EQ(log.texts(LogLevel::error).size(), 2u);
}

TEST_F(StorebagEnvelope, AFurtherSignatureIsEnough) {
  Dictionary fields = strangeSigner().envelopeFields(bag);
  const Value ours = Dictionary{{"signature", base64Encode(signer.signature(bag))}};
  fields.set("signatures", Array{"text", Dictionary{{"signature", 7}}, ours});
  EXPECT_EQ(open(fields), storebag);
  fields.set("signature", "A");
  EXPECT_EQ(open(fields), storebag) << "though the first is no Base64";
  fields.erase("signature");
  EXPECT_FALSE(open(fields)) << "the first must be there";
  fields = strangeSigner().envelopeFields(bag);
  fields.set("signatures", ours);
  EXPECT_FALSE(open(fields)) << "what is no array is none";
}

TEST_F(StorebagEnvelope, MoreSignaturesThanSoManyAreNotLookedAt) {
  Dictionary fields = strangeSigner().envelopeFields(bag);
  const Value theirs = Dictionary{{"signature", *stringAt(fields, "signature")}};
  const Value ours = Dictionary{{"signature", base64Encode(signer.signature(bag))}};
  Array more(mostSignatures - 2, theirs);
  more.push_back(ours);
  fields.set("signatures", more);
  EXPECT_EQ(open(fields), storebag);
  more.insert(more.begin(), theirs);
  fields.set("signatures", more);
  EXPECT_FALSE(open(fields));
}

TEST_F(StorebagEnvelope, TheSHA256SignatureIsLookedAtWhereItIsRequiredAndNowhereElse) {
  const auto with = [&](const Value& sha256) {
    Dictionary fields = signer.envelopeFields(bag);
    fields.set("signatureSHA256", sha256);
    return writeXMLPropertyList(fields);
  };
  const auto isTaken = [&](const std::string& envelope, bool requiresSHA256) {
    return openEnvelope(envelope, keysOf(key), {.requiresSHA256 = requiresSHA256})
        .storebag.has_value();
  };
  const std::string good = with(base64Encode(signer.signature(bag, signing::Digest::sha256)));
  EXPECT_TRUE(isTaken(good, true));
  EXPECT_TRUE(isTaken(good, false));
  for (const Value& bad :
       {Value(base64Encode(strangeSigner().signature(bag, signing::Digest::sha256))),
        Value(base64Encode(signer.signature(bag))), Value("A"), Value(7)}) {
    EXPECT_FALSE(isTaken(with(bad), true));
    EXPECT_TRUE(isTaken(with(bad), false));
  }
}

TEST_F(StorebagEnvelope, WithoutTheSHA256SignatureThatIsRequiredItIsUnverified) {
  const OpenedEnvelope opened =
      openEnvelope(enveloped(signer, storebag), keysOf(key), {.requiresSHA256 = true});
  EXPECT_FALSE(opened.storebag);
  EXPECT_EQ(opened.reason, Reason::storebagUnverified);
  EXPECT_EQ(opened.lack, "no SHA-256 signature beside the one that a key of this device verifies");
}

}  // namespace
}  // namespace corvid
