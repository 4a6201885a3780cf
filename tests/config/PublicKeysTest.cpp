#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "config/PublicKeys.h"
#include "tests/config/Signers.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeFileSystem.h"

namespace corvid {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct PublicKeysOfDevice : testing::Test {
  void further(const std::string& name, const std::string& content) {
    files.directories.insert(paths.furtherKeysFolder);
    files.files[paths.furtherKeysFolder + "/" + name] = {content, {}};
  }
  PublicKeys read() { return readPublicKeys(files, paths); }

  const std::string trusted = trustedSigner().publicKeyDER();
  const std::string strange = strangeSigner().publicKeyDER();
  const Paths paths{"/root"};
  FakeFileSystem files{std::make_shared<FakeClock>()};
};

TEST_F(PublicKeysOfDevice, TheMainOneComesFirstAndFurtherOnesInNameOrder) {
  files.files[paths.publicKeyFile] = {trusted, {}};
  further("b.der", strange);
  further("a.der", trusted);
  const PublicKeys keys = read();
  EXPECT_THAT(keys.files, ElementsAre(paths.publicKeyFile, paths.furtherKeysFolder + "/a.der",
                                      paths.furtherKeysFolder + "/b.der"));
  ASSERT_EQ(keys.usable.size(), 3u);
  EXPECT_EQ(keys.usable[0].fingerprint(), keys.usable[1].fingerprint());
  EXPECT_NE(keys.usable[0].fingerprint(), keys.usable[2].fingerprint());
  EXPECT_THAT(keys.faults, IsEmpty());
}

TEST_F(PublicKeysOfDevice, TheAdministratorsMainOneTakesThePlaceOfTheOneThatCameWithTheSystem) {
  files.files[paths.publicKeyFile] = {strange, {}};
  files.files[paths.administratorsPublicKeyFile] = {trusted, {}};
  const PublicKeys keys = read();
  EXPECT_THAT(keys.files, ElementsAre(paths.administratorsPublicKeyFile));
  EXPECT_EQ(keys.mainFile, "/root/etc/corvid/publicKey.der");
}

TEST_F(PublicKeysOfDevice, AnAdministratorsMainOneThatIsNoKeyIsNotReplacedByTheOther) {
  files.files[paths.publicKeyFile] = {trusted, {}};
  files.files[paths.administratorsPublicKeyFile] = {"no key", {}};
  const PublicKeys keys = read();
  EXPECT_THAT(keys.usable, IsEmpty());
  ASSERT_EQ(keys.faults.size(), 1u);
  EXPECT_EQ(keys.faults[0].path, paths.administratorsPublicKeyFile);
}

TEST_F(PublicKeysOfDevice, AFileThatIsNoUsableKeyIsAFaultAndTheOthersCount) {
  further("a.der", "no key");
  further("b.der", trusted);
  const PublicKeys keys = read();
  EXPECT_EQ(keys.usable.size(), 1u);
  ASSERT_EQ(keys.faults.size(), 2u);
  EXPECT_EQ(keys.faults[0].path, paths.publicKeyFile);
  EXPECT_EQ(keys.faults[0].code, ENOENT);
  EXPECT_EQ(keys.faults[1].path, paths.furtherKeysFolder + "/a.der");
  EXPECT_THAT(keys.faults[1].what, HasSubstr("no public key in DER form"));
}

TEST_F(PublicKeysOfDevice, WhatIsNoKeyFileByItsNameIsNotRead) {
  for (const char* const name : {"a.pem", ".hidden.der", "der"}) further(name, trusted);
  EXPECT_THAT(read().usable, IsEmpty());
  EXPECT_EQ(read().faults.size(), 1u) << "the main one's";
}

TEST_F(PublicKeysOfDevice, NoMoreThanSoManyAreRead) {
  for (std::size_t at = 0; at < mostFurtherKeys + 2; ++at)
    further(fmt::format("{:03}.der", at), trusted);
  const PublicKeys keys = read();
  EXPECT_EQ(keys.usable.size(), mostFurtherKeys);
  ASSERT_EQ(keys.faults.size(), 3u);
  EXPECT_THAT(keys.faults[2].what, HasSubstr("one key too many"));
}

TEST_F(PublicKeysOfDevice, AFolderThatCannotBeListedIsAFault) {
  files.files[paths.publicKeyFile] = {trusted, {}};
  files.listFailure = Failure{"forbidden", EACCES};
  const PublicKeys keys = read();
  EXPECT_EQ(keys.usable.size(), 1u);
  ASSERT_EQ(keys.faults.size(), 1u);
  EXPECT_EQ(keys.faults[0].path, paths.furtherKeysFolder);
}

}  // namespace
}  // namespace corvid
