#include <gtest/gtest.h>

#include "platform/system/PeerIdentity.h"

namespace corvid {
namespace {

TEST(ControlGroup, NamesTheServiceBelowItsSlices) {
  EXPECT_EQ(unitOfControlGroups("0::/system.slice/corvid-media.service\n"), "corvid-media.service");
  EXPECT_EQ(unitOfControlGroups("0::/system.slice/system-getty.slice/getty@tty1.service\n"),
            "getty@tty1.service");
}

TEST(ControlGroup, NamesTheScopeOfALogin) {
  EXPECT_EQ(unitOfControlGroups("0::/user.slice/user-1000.slice/session-3.scope\n"),
            "session-3.scope");
  EXPECT_EQ(unitOfControlGroups("0::/init.scope\n"), "init.scope");
}

TEST(ControlGroup, NamesTheOutermostUnitWhateverItsOwnerMakesBelow) {
  EXPECT_EQ(unitOfControlGroups("0::/user.slice/user-1000.slice/user@1000.service/app.slice/"
                                "corvid-media.service\n"),
            "user@1000.service");
  EXPECT_EQ(unitOfControlGroups("0::/system.slice/box.service/corvid-media.service\n"),
            "box.service");
}

TEST(ControlGroup, WithoutUnitIsEmpty) {
  for (const char* lines : {"", "0::/\n", "0::/system.slice\n", "0::/../other.service\n", "0::\n",
                            "damage", "0:", "0::/box/corvid-media.service\n", "0::/.slice/\n"})
    EXPECT_EQ(unitOfControlGroups(lines), "") << lines;
}

TEST(ControlGroup, LosesTheEscapeOfItsName) {
  EXPECT_EQ(unitOfControlGroups("0::/system.slice/_cpu.service\n"), "cpu.service");
}

TEST(ControlGroup, IsThatOfSystemdWhereTheUnifiedHierarchyTellsNothing) {
  EXPECT_EQ(unitOfControlGroups("9:cpu:/a.service\n1:name=systemd:/system.slice/b.service\n0::/\n"),
            "b.service");
  EXPECT_EQ(unitOfControlGroups("1:name=systemd:/system.slice/b.service\n0::/c.service\n"),
            "c.service");
}

TEST(ControlGroup, CannotBeForgedByAFolderInAnotherHierarchy) {
  EXPECT_EQ(unitOfControlGroups("4:memory:/x0::/corvid-media.service\n"
                                "3:cpu:/x:name=systemd:/corvid-media.service\n"),
            "");
}

}  // namespace
}  // namespace corvid
