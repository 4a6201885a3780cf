#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "base/Descriptor.h"
#include "base/Reading.h"
#include "platform/data/Crypto.h"
#include "platform/data/JSON.h"
#include "tests/tools/storebag/SigningFolder.h"
#include "tools/JSONValues.h"
#include "tools/signing/Envelope.h"

namespace corvid {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class SignCommand : public testing::Test, protected SigningFolder {
 protected:
  // Signs `source` with these keys; the envelope's fields.
  Dictionary sign(const std::string& source, const std::vector<std::string>& keys = {"trusted"}) {
    std::vector<std::string> arguments{"sign"};
    for (const std::string& key : keys)
      arguments.insert(arguments.end(), {"--key", privateKey(key)});
    arguments.insert(arguments.end(), {source, "-o", envelope});
    EXPECT_EQ(printedBy(arguments), "");
    return *parsePropertyList(contentOf(envelope)).value().dictionary();
  }
  std::string bagIn(const Dictionary& fields) {
    return *base64DecodeIgnoringUnknownCharacters(*stringAt(fields, "bag"));
  }
  void expectRefusal(std::vector<std::string> arguments, const std::string& message) {
    arguments.insert(arguments.begin(), "sign");
    expectFailure(std::move(arguments), message);
  }
  // The tool would say what is wrong with `json`.
  void expectNoForm(const std::string& json, const std::string& path) {
    const std::string file = folder.write("storebag.json", json);
    expectRefusal({"--force", "--key", privateKey("trusted"), file, "-o", envelope},
                  file + ": a property list in XML has no form for the value of " + path);
    EXPECT_FALSE(fs::exists(envelope));
  }
};

TEST_F(SignCommand, KeepsThePropertyListsBytesAsTheyAre) {
  std::string odd = writeXMLPropertyList(publishedStorebag());
  odd.insert(odd.find("<dict>"), "<!-- by hand -->\r\n\t");
  for (const std::string& bytes : {odd, writeBinaryPropertyList(publishedStorebag())})
    EXPECT_EQ(bagIn(sign(folder.write("in", bytes))), bytes);
}

TEST_F(SignCommand, MakesAPropertyListOfJSON) {
  Dictionary content = publishedStorebag();
  content.set("salt", Data{"\x01\xff"});
  content.set("since", Date{12});
  const std::string json = *writeJSON(*tools::jsonFromValue(content).dictionary());
  const std::string file = folder.write("in.json", json);
  const ToolResult result =
      storebagTool({"sign", "--key", privateKey("trusted"), file, "-o", envelope});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(bagIn(*parsePropertyList(contentOf(envelope)).value().dictionary()),
            writeXMLPropertyList(content));
}

TEST_F(SignCommand, SignsTheBagOfAnEnvelopeAnew) {
  const Dictionary once = sign(storebag);
  const std::string published = folder.write("published", contentOf(envelope));
  EXPECT_EQ(bagIn(sign(published, {"strange", "trusted"})), bagIn(once));
  EXPECT_EQ(sign(published), once);
}

TEST_F(SignCommand, SignsWithEachKeyInTheOrderGiven) {
  const std::vector<signing::SigningKey> keys{signing::SigningKey::open(privateKey("strange")),
                                              signing::SigningKey::open(privateKey("trusted"))};
  EXPECT_EQ(sign(storebag, {"strange", "trusted"}),
            signing::envelopeFields(keys, contentOf(storebag)));
}

TEST_F(SignCommand, MakesTheSameBytesOfTheSameInput) {
  sign(storebag, {"trusted", "strange"});
  const std::string once = contentOf(envelope);
  sign(storebag, {"trusted", "strange"});
  EXPECT_EQ(contentOf(envelope), once);
}

TEST_F(SignCommand, WhatItSignsTheOpenSSLProgramVerifies) {
  const std::string key = folder.path("genrsa.pem");
  ASSERT_EQ(runTool("openssl", {"genrsa", "-out", key, "2048"}).status, 0);
  const std::string publicHalf = folder.path("genrsa.pub");
  ASSERT_EQ(runTool("openssl", {"rsa", "-in", key, "-pubout", "-out", publicHalf}).status, 0);
  EXPECT_EQ(printedBy({"sign", "--key", key, storebag, "-o", envelope}), "");
  const Dictionary fields = *parsePropertyList(contentOf(envelope)).value().dictionary();
  const std::string bag = folder.write("bag", bagIn(fields));
  for (const auto& [field, digest] :
       {std::pair{"signature", "-sha1"}, std::pair{"signatureSHA256", "-sha256"}}) {
    const std::string signature =
        folder.write("signature", *base64DecodeIgnoringUnknownCharacters(*stringAt(fields, field)));
    const auto verify = [&, algorithm = digest](const std::string& file) {
      return runTool("openssl",
                     {"dgst", algorithm, "-verify", publicHalf, "-signature", signature, file})
          .output;
    };
    EXPECT_EQ(verify(bag), "Verified OK\n") << field;
    EXPECT_EQ(verify(storebag), "Verified OK\n") << field;
    EXPECT_EQ(verify(signature), "Verification failure\n") << field;
  }
}

TEST_F(SignCommand, AKeyMayComeFromAProvider) {
  const Dictionary fields = sign(storebag);
  fs::remove(envelope);
  const std::string der = folder.path("private.der");
  ASSERT_EQ(runTool("openssl", {"pkcs8", "-topk8", "-nocrypt", "-in", privateKey("trusted"),
                                "-outform", "DER", "-out", der})
                .status,
            0);
  const std::string configuration =
      folder.write("openssl.cnf",
                   "openssl_conf = all\n[all]\nproviders = providers\n[providers]\n"
                   "default = active\nkeys = keys\n[active]\nactivate = 1\n[keys]\n"
                   "activate = 1\nmodule = " CORVID_KEY_PROVIDER "\n");
  const auto signWith = [&](const std::string& uri) {
    return runTool("env", {"OPENSSL_CONF=" + configuration, CORVID_STOREBAG_PROGRAM, "sign",
                           "--key", uri, storebag, "-o", envelope});
  };
  const ToolResult done = signWith("corvid-test:" + der);
  EXPECT_EQ(done.status, 0) << done.errors;
  EXPECT_EQ(done.errors, "");
  EXPECT_EQ(parsePropertyList(contentOf(envelope)).value(), Value(fields));
  const ToolResult missing = signWith("corvid-test:" + folder.path("missing"));
  EXPECT_EQ(missing.status, 1);
  EXPECT_THAT(missing.errors, HasSubstr("missing: its provider has no private key there"));
}

TEST_F(SignCommand, ASchemeThatNoProviderKnowsIsNamed) {
  const ToolResult result =
      storebagTool({"sign", "--key", "pkcs11:object=signing", storebag, "-o", envelope});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("no OpenSSL provider here opens \"pkcs11:\""));
  EXPECT_FALSE(fs::exists(envelope));
}

TEST_F(SignCommand, NeverWritesOverAPrivateKeyOrTheStorebag) {
  const std::string key = folder.write("key.pem", contentOf(privateKey("trusted")));
  fs::permissions(key, fs::perms::owner_read | fs::perms::owner_write);
  const std::string other = folder.write("other.pem", contentOf(privateKey("strange")));
  const std::string asDER = folder.path("key.der");
  ASSERT_EQ(runTool("openssl", {"rsa", "-in", key, "-outform", "DER", "-out", asDER}).status, 0);
  const std::string encrypted = folder.path("encrypted.pem");
  ASSERT_EQ(runTool("openssl", {"rsa", "-in", key, "-aes256", "-traditional", "-passout",
                                "pass:secret", "-out", encrypted})
                .status,
            0);
  fs::create_hard_link(key, folder.path("second-name"));
  fs::create_symlink(key, folder.path("link"));
  for (const std::string& out : {key, folder.path("./key.pem"), folder.path("second-name"),
                                 folder.path("link"), other, asDER, encrypted})
    expectRefusal({"--key", key, storebag, "-o", out},
                  out + " is a private key; name another file with -o");
  expectRefusal({"--key", key, storebag, "-o", storebag},
                storebag + " is the storebag that is to be signed; name another file with -o");
  EXPECT_EQ(contentOf(key), contentOf(privateKey("trusted")));
  EXPECT_EQ(contentOf(other), contentOf(privateKey("strange")));
  EXPECT_EQ(contentOf(storebag), writeXMLPropertyList(publishedStorebag()));
}

TEST_F(SignCommand, WarnsOfAPrivateKeyThatOthersCanRead) {
  const std::string key = folder.write("key.pem", contentOf(privateKey("trusted")));
  for (const fs::perms readers : {fs::perms::group_read, fs::perms::others_read}) {
    fs::permissions(key, fs::perms::owner_read | readers);
    const ToolResult result = storebagTool({"sign", "--key", key, storebag, "-o", envelope});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "corvid-storebag: warning: " + key +
                                 " can be read by others than its owner; chmod 600 keeps them "
                                 "out\n");
  }
  fs::permissions(key, fs::perms::owner_read);
  EXPECT_EQ(printedBy({"sign", "--key", key, storebag, "-o", envelope}), "");
}

TEST_F(SignCommand, PutsTheEnvelopeWhereServersCanReadItInOneStep) {
  folder.write("tessel", "the old one");
  const Descriptor old(open(envelope.c_str(), O_RDONLY | O_CLOEXEC));
  const mode_t before = umask(0022);
  sign(storebag);
  umask(before);
  struct stat replaced {
  }, status{};
  ASSERT_EQ(fstat(old.get(), &replaced), 0);
  EXPECT_EQ(replaced.st_nlink, 0u) << "the old file was written over, not replaced";
  EXPECT_EQ(replaced.st_size, 11);
  ASSERT_EQ(stat(envelope.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777u, 0644u);
  EXPECT_FALSE(fs::exists(envelope + ".new"));
}

TEST_F(SignCommand, RefusesJSONThatAPropertyListCannotSay) {
  expectNoForm(R"({"version":"1","release":{"httpPost":{"clients":[{"post_url":null}]}}})",
               "release.httpPost.clients[0].post_url");
  expectNoForm(R"({"version":"1","list":[1,null,3]})", "list[1]");
  expectNoForm(R"({"version":"a\u0001b"})", "version");
  expectNoForm(R"({"version":"1","since":{"$date":0.5}})", "since");
}

TEST_F(SignCommand, RefusesWhatNoDeviceWouldTake) {
  const std::string large = folder.write(
      "large",
      writeXMLPropertyList(Dictionary{{"version", "1"}, {"padding", std::string(3'500'000, 'x')}}));
  const ToolResult result =
      storebagTool({"sign", "--force", "--key", privateKey("trusted"), large, "-o", envelope});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("would take the envelope"));
  EXPECT_FALSE(fs::exists(envelope));
}

TEST_F(SignCommand, RefusesWhatLintFindsWrongUnlessForced) {
  Dictionary wrong = publishedStorebag();
  wrong.erase("version");
  const std::string file = folder.write("wrong", writeXMLPropertyList(wrong));
  const std::vector<std::string> arguments{"sign", "--key", privateKey("trusted"),
                                           file,   "-o",    envelope};
  const ToolResult refused = storebagTool(arguments);
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.errors.find("corvid-storebag: " + file + ": 1 WRONG, first version: "), 0u)
      << refused.errors;
  EXPECT_EQ(linesOf(refused.errors).size(), 1u);
  EXPECT_FALSE(fs::exists(envelope));

  std::vector<std::string> forced = arguments;
  forced.push_back("--force");
  const ToolResult done = storebagTool(forced);
  EXPECT_EQ(done.status, 0);
  EXPECT_THAT(done.errors, HasSubstr("corvid-storebag: warning: " + file + ": 1 WRONG"));
  EXPECT_EQ(bagIn(*parsePropertyList(contentOf(envelope)).value().dictionary()), contentOf(file));
}

TEST_F(SignCommand, TakesNotesForWhatMayBeMeant) {
  Dictionary noted = publishedStorebag();
  noted.set("release",
            Dictionary{{"httpPost", Dictionary{{"clients", Array{}}}}});  // nobody reports
  const std::string file = folder.write("noted", writeXMLPropertyList(noted));
  ASSERT_THAT(printedBy({"lint", file}), HasSubstr("0 wrong"));
  EXPECT_EQ(bagIn(sign(file)), contentOf(file));
}

TEST_F(SignCommand, SaysWhatItCannotReadOrWrite) {
  const std::string key = privateKey("trusted"), missing = folder.path("missing");
  expectRefusal({"--key", missing, storebag, "-o", envelope},
                missing + ": No such file or directory");
  expectRefusal({"--key", key, missing, "-o", envelope}, missing + ": No such file or directory");
  expectRefusal({"--key", key, storebag, "-o", missing + "/envelope"},
                "cannot open " + missing + ": No such file or directory");
  EXPECT_FALSE(fs::exists(envelope));
}

}  // namespace
}  // namespace corvid
