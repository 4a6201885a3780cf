#include <fmt/format.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/data/Crypto.h"
#include "tests/support/Scratch.h"
#include "tests/tools/storebag/StorebagTool.h"

namespace corvid {
namespace {

class KeygenCommand : public testing::Test {
 protected:
  // The length in bits that the openssl program sees.
  std::string bitsOf(const std::string& key) {
    const ToolResult result = runTool("openssl", {"rsa", "-in", key, "-noout", "-text"});
    EXPECT_EQ(result.status, 0) << result.errors;
    return result.output.substr(0, result.output.find('\n'));
  }

  const ScratchFolder _folder;
  const std::string _private = _folder.path("keys/private.pem");
  const std::string _public = _folder.path("keys/publicKey.der");
};

TEST_F(KeygenCommand, MakesAFolderWithBothHalvesAndPrintsTheID) {
  const std::string printed = printedBy({"keygen", _folder.path("keys")});
  EXPECT_EQ(bitsOf(_private), "Private-Key: (3072 bit, 2 primes)");
  const auto key = RSAPublicKey::fromDER(contentOf(_public));
  ASSERT_TRUE(key);
  EXPECT_EQ(printed, fmt::format("{:016x}\n", key.value().fingerprint()));
  // The first digits of what the openssl program digests.
  const ToolResult digest = runTool("openssl", {"dgst", "-sha256", "-r", _public});
  EXPECT_EQ(digest.output.substr(0, 16) + "\n", printed);
  const ToolResult half =
      runTool("openssl", {"rsa", "-in", _private, "-pubout", "-outform", "DER"});
  EXPECT_EQ(half.output, contentOf(_public));
}

TEST_F(KeygenCommand, LetsOnlyTheOwnerReadThePrivateHalf) {
  const mode_t before = umask(0);  // the tool gets it as well
  printedBy({"keygen", _folder.path("keys"), "--bits", "2048"});
  umask(before);
  struct stat status {};
  ASSERT_EQ(stat(_private.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777u, 0600u);
  EXPECT_EQ(bitsOf(_private), "Private-Key: (2048 bit, 2 primes)");
}

TEST_F(KeygenCommand, NeverReplacesAKey) {
  _folder.write("keys/private.pem", "precious");
  expectFailure({"keygen", _folder.path("keys")},
                _private + " is there already; take another folder");
  EXPECT_EQ(contentOf(_private), "precious");
  EXPECT_FALSE(std::filesystem::exists(_public));

  _folder.remove("keys/private.pem");
  std::filesystem::create_symlink("elsewhere", _private);
  expectFailure({"keygen", _folder.path("keys")},
                _private + " is there already; take another folder");
  EXPECT_FALSE(std::filesystem::exists(_folder.path("keys/elsewhere")));

  _folder.remove("keys/private.pem");
  _folder.write("keys/publicKey.der", "of another key");
  expectFailure({"keygen", _folder.path("keys")},
                _public + " is there already; take another folder");
  EXPECT_EQ(contentOf(_public), "of another key");
  EXPECT_FALSE(std::filesystem::exists(_private));
}

TEST_F(KeygenCommand, RefusesKeysThatNoDeviceTakes) {
  expectFailure({"keygen", _folder.path("keys"), "--bits", "2047"},
                "--bits: takes a whole number from 2048 to 16384, not \"2047\" "
                "(corvid-storebag keygen --help says more)",
                64);
  EXPECT_FALSE(std::filesystem::exists(_folder.path("keys")));
}

TEST_F(KeygenCommand, SaysWhereItCannotWrite) {
  const std::string file = _folder.write("file", "");
  expectFailure({"keygen", file + "/keys"}, "cannot make " + file + "/keys: Not a directory");
}

}  // namespace
}  // namespace corvid
