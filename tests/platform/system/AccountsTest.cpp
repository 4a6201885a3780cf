#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/system/Accounts.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

class AccountsTest : public testing::Test {
 protected:
  Writers writers(mode_t mode) {
    chmod(file.c_str(), mode);
    return writersOf(file).value();
  }
  ScratchFolder scratch;
  const std::string file = scratch.write("folder/file", "");
};

TEST_F(AccountsTest, AreFoundByNameAndByWhatTheyOwn) {
  EXPECT_EQ(ownAccount().user, geteuid());
  EXPECT_EQ(ownerOf(file)->user, geteuid());
  EXPECT_EQ(ownerOf(file)->name, ownAccount().name);
  EXPECT_EQ(accountNamed("root")->user, 0u);
  EXPECT_FALSE(accountNamed("nobody-of-that-name"));
  EXPECT_FALSE(ownerOf(scratch.path("missing")));
}

TEST_F(AccountsTest, WritersAreThoseWhomTheModeLetsWrite) {
  EXPECT_EQ(writers(0600).owner, geteuid());
  EXPECT_FALSE(writers(0644).everybody);
  EXPECT_TRUE(writers(0646).everybody);
  EXPECT_FALSE(writersOf(scratch.path("missing")));
}

TEST_F(AccountsTest, NobodyElseReplacesAnythingInAStickyFolder) {
  const std::string folder = scratch.path("folder");
  chmod(folder.c_str(), 0777);
  EXPECT_TRUE(writersOf(folder)->everybody);
  chmod(folder.c_str(), 01777);
  EXPECT_FALSE(writersOf(folder)->everybody);
}

// Whether the group of the file, and then only, can write it.
TEST_F(AccountsTest, AGroupCountsWhereItIsNotTheOwnersOwn) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  EXPECT_FALSE(writers(0664).group) << "root's";
  ASSERT_EQ(chown(file.c_str(), 0, 4711), 0);
  EXPECT_TRUE(writers(0664).group);
  EXPECT_FALSE(writers(0644).group);
}

TEST_F(AccountsTest, AProcessThatActsAsAnotherMayDoNoMoreThanThatOne) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can act as another";
  chmod(scratch.path().c_str(), 0755);
  chmod(scratch.path("folder").c_str(), 0700);
  EXPECT_EQ(inChild([&] {
              if (!mayEnter(scratch.path("folder"))) return 1;
              if (actAs({4711, 4711, "4711"})) return 2;
              if (geteuid() != 4711 || getegid() != 4711 || getgroups(0, nullptr) > 1) return 3;
              if (mayEnter(scratch.path("folder"))) return 4;
              return setuid(0) == 0 ? 5 : 0;
            }),
            0);
  // Root itself no longer passes over modes.
  chmod(file.c_str(), 0);
  EXPECT_EQ(inChild([&] {
              if (actAs(ownAccount())) return 1;
              return access(file.c_str(), R_OK) == 0 ? 2 : 0;
            }),
            0);
}

}  // namespace
}  // namespace corvid
