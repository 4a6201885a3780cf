#include <gtest/gtest.h>

#include <filesystem>

#include "platform/system/Entitlements.h"
#include "tests/fakes/CapturedLog.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

class EntitlementsTest : public testing::Test {
 protected:
  EntitlementsTest() {
    peer.pid = 123;
    peer.uid = 1000;
    peer.gid = 1001;
    peer.groups = {20, 30};
    peer.unit = "corvid-media.service";
    peer.label = "media_t";
  }

  void writeFile(const std::string& name, std::string_view match,
                 std::string_view entitlements = "<key>allowed</key><true/>") {
    folder.write(name, "<plist version=\"1.0\"><dict><key>match</key><dict>" + std::string(match) +
                           "</dict><key>entitlements</key><dict>" + std::string(entitlements) +
                           "</dict></dict></plist>");
  }
  // Whether a file with that match entitles the peer.
  bool matches(std::string_view match) {
    writeFile("one.plist", match);
    return entitled("allowed");
  }
  bool entitled(std::string_view name) {
    const Dictionary entitlements = Entitlements(folder.path()).entitlementsForPeer(peer);
    const Value* value = entitlements.find(name);
    return value != nullptr && value->boolean() == true;
  }

  CapturedLog log;
  ScratchFolder folder;
  PeerIdentity peer;
};

TEST_F(EntitlementsTest, UserMatchesByNumberAndName) {
  EXPECT_TRUE(matches("<key>user</key><integer>1000</integer>"));
  EXPECT_TRUE(matches("<key>user</key><string>1000</string>"));
  EXPECT_FALSE(matches("<key>user</key><integer>1001</integer>"));
  EXPECT_FALSE(matches("<key>user</key><string>root</string>"));
  peer.uid = 0;
  EXPECT_TRUE(matches("<key>user</key><string>root</string>"));
}

TEST_F(EntitlementsTest, UserThatIsNoAccountMatchesNobody) {
  for (peer.uid = 0; peer.uid != 3; ++peer.uid)
    for (const char* user :
         {"<string></string>", "<string>no such user</string>", "<string>0x0</string>",
          "<string>-1</string>", "<string>99999999999999999999</string>", "<integer>-1</integer>",
          "<integer>4294967296</integer>", "<true/>", "<array/>", "<real>0</real>"})
      EXPECT_FALSE(matches("<key>user</key>" + std::string(user))) << user;
  peer.uid = static_cast<uid_t>(-1);
  EXPECT_FALSE(matches("<key>user</key><integer>4294967295</integer>"));
  EXPECT_FALSE(matches("<key>user</key><integer>-1</integer>"));
}

TEST_F(EntitlementsTest, GroupMatchesAnyOfThePeersGroups) {
  for (const char* group : {"1001", "20", "30"})
    EXPECT_TRUE(matches("<key>group</key><string>" + std::string(group) + "</string>")) << group;
  EXPECT_TRUE(matches("<key>group</key><integer>30</integer>"));
  EXPECT_FALSE(matches("<key>group</key><integer>1000</integer>"));
  EXPECT_FALSE(matches("<key>group</key><string>root</string>"));
  peer.groups.push_back(0);
  EXPECT_TRUE(matches("<key>group</key><string>root</string>"));
}

TEST_F(EntitlementsTest, UnitAndLabelMatchByTheirWholeText) {
  EXPECT_TRUE(matches("<key>unit</key><string>corvid-media.service</string>"));
  EXPECT_FALSE(matches("<key>unit</key><string>corvid-media</string>"));
  EXPECT_TRUE(matches("<key>label</key><string>media_t</string>"));
  EXPECT_FALSE(matches("<key>label</key><string>Media_t</string>"));
}

TEST_F(EntitlementsTest, PeerWithoutUnitOrLabelIsMatchedByNone) {
  peer.unit.clear();
  peer.label.clear();
  EXPECT_FALSE(matches("<key>unit</key><string></string>"));
  EXPECT_FALSE(matches("<key>label</key><string></string>"));
}

TEST_F(EntitlementsTest, AllConditionsMustHold) {
  const std::string unit = "<key>unit</key><string>corvid-media.service</string>";
  EXPECT_TRUE(matches(unit + "<key>user</key><integer>1000</integer>"));
  EXPECT_FALSE(matches(unit + "<key>user</key><integer>1</integer>"));
  EXPECT_FALSE(matches(unit + "<key>user</key><true/>"));
  EXPECT_FALSE(matches(unit + "<key>usr</key><integer>1000</integer>"));
}

TEST_F(EntitlementsTest, MissingOrEmptyMatchMatchesNobody) {
  EXPECT_FALSE(matches(""));
  folder.write("one.plist",
               "<plist><dict><key>entitlements</key><dict><key>allowed</key><true/></dict></dict>"
               "</plist>");
  EXPECT_FALSE(entitled("allowed"));
  folder.write("one.plist",
               "<plist><dict><key>match</key><string>user</string><key>entitlements</key><dict>"
               "<key>allowed</key><true/></dict></dict></plist>");
  EXPECT_FALSE(entitled("allowed"));
}

const char* const byUser = "<key>user</key><integer>1000</integer>";

TEST_F(EntitlementsTest, OfAllMatchingFilesAreMergedAndTheLaterNameWins) {
  writeFile("20-b.plist", byUser, "<key>a</key><false/><key>c</key><true/>");
  writeFile("10-a.plist", byUser, "<key>a</key><true/><key>b</key><true/>");
  writeFile("30-other.plist", "<key>user</key><integer>1</integer>", "<key>b</key><false/>");
  EXPECT_FALSE(entitled("a"));
  EXPECT_TRUE(entitled("b"));
  EXPECT_TRUE(entitled("c"));
}

TEST_F(EntitlementsTest, KeepTheTypesOfTheirValues) {
  writeFile("a.plist", byUser, "<key>a</key><string>yes</string><key>b</key><integer>1</integer>");
  const Dictionary entitlements = Entitlements(folder.path()).entitlementsForPeer(peer);
  ASSERT_TRUE(entitlements.contains("a"));
  EXPECT_EQ(*entitlements.find("a"), Value("yes"));
  EXPECT_EQ(*entitlements.find("b"), Value(1));
}

TEST_F(EntitlementsTest, AreReadAtEachCall) {
  EXPECT_FALSE(entitled("allowed"));
  writeFile("a.plist", byUser);
  EXPECT_TRUE(entitled("allowed"));
  std::filesystem::remove(folder.path() + "/a.plist");
  EXPECT_FALSE(entitled("allowed"));
}

TEST_F(EntitlementsTest, AFileThatCannotBeReadRefusesEverybodyAndIsNamed) {
  writeFile("10-good.plist", byUser);
  for (const char* content : {"<plist><dict>", "<plist><array/></plist>", "garbage", ""}) {
    const std::string path = folder.write("20-damaged.plist", content);
    log.clear();
    EXPECT_FALSE(entitled("allowed")) << content;
    const auto errors = log.texts(LogLevel::error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(errors[0].starts_with("entitlementsForPeer: " + path + ": ")) << errors[0];
    EXPECT_TRUE(errors[0].ends_with("; refusing everybody")) << errors[0];
  }
  std::filesystem::remove(folder.path() + "/20-damaged.plist");
  EXPECT_TRUE(entitled("allowed"));
}

TEST_F(EntitlementsTest, AMatchThatCannotBeUnderstoodRefusesThoseItCouldConcern) {
  writeFile("10-good.plist", byUser);
  writeFile("20-misspelt.plist", "<key>usr</key><integer>1000</integer>",
            "<key>allowed</key><false/>");
  EXPECT_FALSE(entitled("allowed"));
  EXPECT_TRUE(log.has(LogLevel::error,
                      "entitlementsForPeer: " + folder.path() +
                          "/20-misspelt.plist refuses whom it could concern, because nothing is "
                          "known of \"usr\"; use user, group, unit or label"));
  const std::string mistyped = "<key>unit</key><true/>";
  writeFile("20-misspelt.plist", mistyped + byUser);
  EXPECT_FALSE(entitled("allowed"));
  log.clear();
  writeFile("20-misspelt.plist", mistyped + "<key>user</key><integer>1</integer>");
  EXPECT_TRUE(entitled("allowed")) << "it concerns another user whatever its unit";
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(EntitlementsTest, AFileWithoutAMatchRefusesEverybody) {
  writeFile("10-good.plist", byUser);
  writeFile("20-empty.plist", "");
  EXPECT_FALSE(entitled("allowed"));
}

TEST_F(EntitlementsTest, AFileWithoutEntitlementsRefusesThoseWhoMatch) {
  writeFile("10-good.plist", byUser);
  folder.write("20-bare.plist",
               "<plist><dict><key>match</key><dict><key>user</key><integer>1000</integer></dict>"
               "</dict></plist>");
  EXPECT_FALSE(entitled("allowed"));
  folder.write("20-bare.plist",
               "<plist><dict><key>match</key><dict><key>user</key><integer>1</integer></dict>"
               "</dict></plist>");
  EXPECT_TRUE(entitled("allowed"));
}

TEST_F(EntitlementsTest, OtherFilesAreNotRead) {
  writeFile("a.plist.bak", byUser);
  writeFile(".a.plist", byUser);
  writeFile("a.xml", byUser);
  EXPECT_FALSE(entitled("allowed"));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(EntitlementsTest, OfAMissingFolderAreNone) {
  EXPECT_TRUE(Entitlements(folder.path() + "/missing").entitlementsForPeer(peer).empty());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(EntitlementsTest, OfWhatIsNoFolderAreNoneAndLogged) {
  const std::string file = folder.write("file", "");
  EXPECT_TRUE(Entitlements(file).entitlementsForPeer(peer).empty());
  EXPECT_TRUE(log.has(LogLevel::error,
                      "entitlementsForPeer: Cannot read the folder " + file + ": Not a directory"));
}

}  // namespace
}  // namespace corvid
