#include <gmock/gmock.h>

#include "platform/data/Crypto.h"
#include "platform/data/JSON.h"
#include "tests/tools/storebag/SigningFolder.h"
#include "tools/signing/Envelope.h"

namespace corvid {
namespace {

using signing::SigningKey;
using testing::HasSubstr;

class VerifyCommand : public testing::Test, protected SigningFolder {
 protected:
  void SetUp() override { put(fieldsBy({"trusted"})); }

  Dictionary fieldsBy(const std::vector<std::string>& names) {
    std::vector<SigningKey> keys;
    for (const std::string& name : names) keys.push_back(SigningKey::open(privateKey(name)));
    return signing::envelopeFields(keys, contentOf(storebag));
  }
  void put(const Dictionary& fields) { folder.write("tessel", writeXMLPropertyList(fields)); }
  Dictionary verdict(std::vector<std::string> arguments, int status) {
    arguments.insert(arguments.begin(), {"verify", "--json"});
    const ToolResult result = storebagTool(arguments);
    EXPECT_EQ(result.status, status) << result.errors;
    const Result<Value> json = parseJSON(result.output);
    return json && json.value().dictionary() ? *json.value().dictionary() : Dictionary();
  }
};

TEST_F(VerifyCommand, NamesTheKeyAndTheVersion) {
  const std::string key = publicKey("trusted");
  EXPECT_EQ(printedBy({"verify", "--public-key", key, envelope}),
            envelope + ": verified by the key " + keyID("trusted") + ", version 7.1\n");
  EXPECT_EQ(verdict({"--public-key", key, envelope}, 0), (Dictionary{{"verified", true},
                                                                     {"keyID", keyID("trusted")},
                                                                     {"version", "7.1"},
                                                                     {"reason", Value()},
                                                                     {"detail", Value()}}));
}

TEST_F(VerifyCommand, TakesWhatAnyOfTheKeysVerifies) {
  EXPECT_THAT(printedBy({"verify", "--public-key", publicKey("strange"), "--public-key",
                         publicKey("trusted"), envelope}),
              HasSubstr(keyID("trusted")));
  put(fieldsBy({"strange", "trusted"}));
  EXPECT_THAT(printedBy({"verify", "--public-key", publicKey("trusted"), envelope}),
              HasSubstr(keyID("trusted")));
}

TEST_F(VerifyCommand, RefusesWhatADeviceWouldRefuse) {
  const std::string strange = publicKey("strange");
  expectFailure({"verify", "--public-key", strange, envelope},
                envelope + ": storebagUnverified: no key of this device verifies its signature");
  EXPECT_EQ(verdict({"--public-key", strange, envelope}, 1),
            (Dictionary{{"verified", false},
                        {"keyID", Value()},
                        {"version", Value()},
                        {"reason", "storebagUnverified"},
                        {"detail", "no key of this device verifies its signature"}}));
  Dictionary fields = fieldsBy({"trusted"});
  fields.set("bag", base64Encode(contentOf(storebag) + " "));
  put(fields);
  EXPECT_EQ(*verdict({"--public-key", publicKey("trusted"), envelope}, 1).find("reason"),
            Value("storebagUnverified"));
  folder.write("tessel", contentOf(storebag));
  EXPECT_EQ(*verdict({"--public-key", publicKey("trusted"), envelope}, 1).find("reason"),
            Value("storebagMalformed"));
}

TEST_F(VerifyCommand, RefusesASignedStorebagWithoutAVersion) {
  folder.write("storebag.plist", writeXMLPropertyList(Dictionary{{"release", Dictionary()}}));
  put(fieldsBy({"trusted"}));
  const Dictionary found = verdict({"--public-key", publicKey("trusted"), envelope}, 1);
  EXPECT_EQ(*found.find("reason"), Value("storebagMalformed"));
  EXPECT_EQ(*found.find("keyID"), Value(keyID("trusted")));
}

TEST_F(VerifyCommand, AsksForSHA256WhereDevicesDo) {
  const std::string key = publicKey("trusted");
  EXPECT_THAT(printedBy({"verify", "--require-sha256", "--public-key", key, envelope}),
              HasSubstr("verified"));
  Dictionary fields = fieldsBy({"trusted"});
  fields.erase("signatureSHA256");
  fields.erase("signatures");
  put(fields);
  EXPECT_THAT(printedBy({"verify", "--public-key", key, envelope}), HasSubstr("verified"));
  EXPECT_EQ(*verdict({"--require-sha256", "--public-key", key, envelope}, 1).find("reason"),
            Value("storebagUnverified"));
}

TEST_F(VerifyCommand, VerifiesWhatTheOpenSSLProgramSigned) {
  const std::string keys = folder.path("keys");
  printedBy({"keygen", keys, "--bits", "2048"});
  Dictionary fields{{"bag", base64Encode(contentOf(storebag))}};
  for (const auto& [field, digest] :
       {std::pair{"signature", "-sha1"}, std::pair{"signatureSHA256", "-sha256"}}) {
    const ToolResult made =
        runTool("openssl", {"dgst", digest, "-sign", keys + "/private.pem", storebag});
    ASSERT_EQ(made.status, 0) << made.errors;
    fields.set(field, base64Encode(made.output));
  }
  put(fields);
  EXPECT_THAT(
      printedBy({"verify", "--require-sha256", "--public-key", keys + "/publicKey.der", envelope}),
      HasSubstr("version 7.1"));
  expectFailure({"verify", "--public-key", publicKey("trusted"), envelope},
                envelope + ": storebagUnverified: no key of this device verifies its signature");
}

TEST_F(VerifyCommand, SaysWhatIsWrongWithAPublicKey) {
  const std::string missing = folder.path("missing.der");
  expectFailure({"verify", "--public-key", missing, envelope},
                missing + ": No such file or directory");
  expectFailure({"verify", "--public-key", privateKey("trusted"), envelope},
                privateKey("trusted") +
                    ": a private key, which no device may have; keygen writes the public one "
                    "beside it as publicKey.der");
  const std::string pem = folder.path("public.pem");
  ASSERT_EQ(
      runTool("openssl", {"rsa", "-in", privateKey("trusted"), "-pubout", "-out", pem}).status, 0);
  expectFailure(
      {"verify", "--public-key", pem, envelope},
      pem + ": PEM, where devices read DER; openssl pkey -pubin -outform DER converts it");
  expectFailure({"verify", envelope},
                "--public-key is required (corvid-storebag verify --help says more)", 64);
}

}  // namespace
}  // namespace corvid
