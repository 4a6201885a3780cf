#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <thread>

#include "base/Descriptor.h"
#include "base/LogLine.h"
#include "platform/data/FilePreferences.h"
#include "platform/data/PropertyList.h"
#include "tests/fakes/CapturedLog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Scratch.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

class FilePreferencesTest : public testing::Test {
 protected:
  std::string file(const std::string& name = "suite.plist") const { return folder + "/" + name; }
  void write(std::string_view content, const std::string& name = "suite.plist") const {
    scratch.write("var/Preferences/" + name, content);
  }
  std::size_t filesInFolder() const {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
  }
  static unsigned modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 0777;
  }
  std::vector<std::string> errors() const { return log.texts(LogLevel::error); }

  ScratchFolder scratch;
  std::string folder = scratch.path() + "/var/Preferences";
  CapturedLog log;
  FilePreferences preferences{folder};
};

TEST_F(FilePreferencesTest, WithoutAFileASuiteIsEmpty) {
  EXPECT_FALSE(preferences.value("suite", "k"));
  EXPECT_TRUE(preferences.keys("suite").empty());
  EXPECT_FALSE(std::filesystem::exists(folder));
  EXPECT_TRUE(errors().empty());
}

TEST_F(FilePreferencesTest, ValuesOutliveTheObject) {
  EXPECT_TRUE(preferences.setValue("suite", "text", "x <&> \u00fc"));
  EXPECT_TRUE(preferences.setValue("suite", "list", Array{1, true, Dictionary{{"d", 0.5}}}));
  FilePreferences later(folder);
  EXPECT_EQ(later.value("suite", "text"), Value("x <&> \u00fc"));
  EXPECT_EQ(later.value("suite", "list"), Value(Array{1, true, Dictionary{{"d", 0.5}}}));
  EXPECT_EQ(later.keys("suite"), (std::vector<std::string>{"text", "list"}));
}

TEST_F(FilePreferencesTest, SuitesAreSeparate) {
  preferences.setValue("one", "k", 1);
  preferences.setValue("two", "k", 2);
  EXPECT_EQ(preferences.value("one", "k"), Value(1));
  EXPECT_EQ(preferences.value("two", "k"), Value(2));
  EXPECT_TRUE(std::filesystem::exists(file("one.plist")));
}

TEST_F(FilePreferencesTest, RemovedValuesAreGoneAndTheOthersStay) {
  preferences.setValue("suite", "a", 1);
  preferences.setValue("suite", "b", 2);
  EXPECT_TRUE(preferences.removeValue("suite", "a"));
  EXPECT_TRUE(preferences.removeValue("suite", "never there"));
  FilePreferences later(folder);
  EXPECT_EQ(later.keys("suite"), (std::vector<std::string>{"b"}));
}

TEST_F(FilePreferencesTest, AChangeThatChangesNothingLeavesTheFileAlone) {
  preferences.setValue("suite", "k", 1);
  struct stat before {
  }, after{};
  ASSERT_EQ(stat(file().c_str(), &before), 0);
  EXPECT_TRUE(preferences.setValue("suite", "k", 1));
  EXPECT_TRUE(preferences.removeValue("suite", "other"));
  ASSERT_EQ(stat(file().c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_EQ(before.st_ctim.tv_nsec, after.st_ctim.tv_nsec);
}

TEST_F(FilePreferencesTest, FilesAreForTheirOwnerOnly) {
  preferences.setValue("suite", "k", 1);
  EXPECT_EQ(modeOf(folder), 0700u);
  EXPECT_EQ(modeOf(file()), 0600u);
  EXPECT_EQ(filesInFolder(), 1u);  // nothing temporary is left
}

TEST_F(FilePreferencesTest, BinaryFilesAreReadAsWell) {
  write(writeBinaryPropertyList(Dictionary{{"k", 7}}));
  EXPECT_EQ(preferences.value("suite", "k"), Value(7));
}

TEST_F(FilePreferencesTest, AChangeFromOutsideIsSeenAtTheNextRead) {
  preferences.setValue("suite", "k", 1);
  EXPECT_EQ(preferences.value("suite", "k"), Value(1));
  FilePreferences(folder).setValue("suite", "k", 2);
  EXPECT_EQ(preferences.value("suite", "k"), Value(2));
  std::filesystem::remove(file());
  EXPECT_FALSE(preferences.value("suite", "k"));
}

// The file's times move in steps that are longer than such a change takes.
TEST_F(FilePreferencesTest, AChangeInPlaceOfTheSameLengthIsSeenAtOnce) {
  const std::string before = "<dict><key>k</key><integer>";
  write(before + "0</integer></dict>");
  const Descriptor inPlace(open(file().c_str(), O_WRONLY | O_CLOEXEC));
  for (int i = 0; i < 1000; ++i) {
    const char digit = static_cast<char>('0' + i % 10);
    ASSERT_EQ(pwrite(inPlace.get(), &digit, 1, static_cast<off_t>(before.size())), 1);
    ASSERT_EQ(preferences.value("suite", "k"), Value(i % 10)) << i;
  }
}

TEST_F(FilePreferencesTest, AnUnchangedFileIsSoonNotOpenedAnyMore) {
  write("<dict><key>k</key><integer>1</integer></dict>");
  const Descriptor watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  ASSERT_GE(inotify_add_watch(watch.get(), file().c_str(), IN_OPEN), 0);
  const auto readOpensTheFile = [&] {
    EXPECT_EQ(preferences.value("suite", "k"), Value(1));
    char events[4096];
    return read(watch.get(), events, sizeof events) > 0;
  };
  EXPECT_TRUE(readOpensTheFile());
  EXPECT_TRUE(waitUntil([&] { return !readOpensTheFile(); }));
}

TEST_F(FilePreferencesTest, ADamagedFileIsSetAsideAndLoggedOnce) {
  write("<dict><key>k</key>");
  EXPECT_FALSE(preferences.value("suite", "k"));
  EXPECT_TRUE(preferences.keys("suite").empty());
  EXPECT_EQ(errors(), (std::vector<std::string>{
                          "FilePreferences: " + file() +
                          " is damaged (The property list ends early at line 1); it is kept as " +
                          file() + ".damaged-1, and its preferences start anew"}));
  EXPECT_EQ(contentOf(file() + ".damaged-1"), "<dict><key>k</key>");
  EXPECT_FALSE(std::filesystem::exists(file()));
}

TEST_F(FilePreferencesTest, EveryDamagedFileIsKept) {
  for (int n = 1; n <= 3; ++n) {
    write("damage " + std::to_string(n));
    EXPECT_TRUE(preferences.setValue("suite", "k", n));
    EXPECT_EQ(preferences.value("suite", "k"), Value(n));
    EXPECT_EQ(contentOf(file() + ".damaged-" + std::to_string(n)), "damage " + std::to_string(n));
  }
  EXPECT_EQ(errors().size(), 3u);
}

TEST_F(FilePreferencesTest, AnEmptyFileAndOneThatIsNoDictionaryAreDamaged) {
  write("");
  EXPECT_FALSE(preferences.value("suite", "k"));
  write("<array/>", "other.plist");
  EXPECT_FALSE(preferences.value("other", "k"));
  ASSERT_EQ(errors().size(), 2u);
  EXPECT_NE(errors()[0].find("(The property list is empty)"), std::string::npos);
  EXPECT_NE(errors()[1].find("(not a dictionary)"), std::string::npos);
}

TEST_F(FilePreferencesTest, WhatCannotBeReadIsNeverOverwritten) {
  std::filesystem::create_directories(file());
  EXPECT_FALSE(preferences.value("suite", "k"));
  EXPECT_FALSE(preferences.value("suite", "k"));
  EXPECT_EQ(errors(),
            (std::vector<std::string>{"FilePreferences: cannot read " + file() +
                                      ": Is a directory; its preferences count as absent"}));
  EXPECT_FALSE(preferences.setValue("suite", "k", 1));
  EXPECT_FALSE(preferences.setValue("suite", "k", 2));
  ASSERT_EQ(errors().size(), 2u);
  EXPECT_EQ(errors().back(),
            "FilePreferences: " + file() + " is left as it is, and changes of it are lost");
  EXPECT_TRUE(std::filesystem::is_directory(file()));
  // Once it is gone, all is well.
  std::filesystem::remove(file());
  EXPECT_TRUE(preferences.setValue("suite", "k", 1));
  EXPECT_EQ(preferences.value("suite", "k"), Value(1));
}

TEST_F(FilePreferencesTest, AFileThatIsTooLongIsLeftAlone) {
  write(std::string(PropertyListLimits().bytes + 1, ' '));
  EXPECT_FALSE(preferences.setValue("suite", "k", 1));
  EXPECT_EQ(std::filesystem::file_size(file()), PropertyListLimits().bytes + 1);
}

TEST_F(FilePreferencesTest, AChangeThatCannotBeWrittenKeepsTheOldValues) {
  preferences.setValue("suite", "k", 1);
  scratch.write("var/Preferences/suite.plist.new/in the way", "");
  EXPECT_FALSE(preferences.setValue("suite", "k", 2));
  EXPECT_EQ(errors(), (std::vector<std::string>{"FilePreferences: a change of " + file() +
                                                " is lost: cannot remove " + file() +
                                                ".new: Is a directory"}));
  EXPECT_EQ(preferences.value("suite", "k"), Value(1));
  EXPECT_EQ(FilePreferences(folder).value("suite", "k"), Value(1));
}

TEST_F(FilePreferencesTest, AReasonForLostChangesIsLoggedOnceUntilOneSucceeds) {
  const std::string obstacle = "var/Preferences/suite.plist.new/in the way";
  scratch.write(obstacle, "");
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(preferences.setValue("suite", "k", i));
  EXPECT_EQ(errors().size(), 1u);
  std::filesystem::remove_all(file() + ".new");
  EXPECT_TRUE(preferences.setValue("suite", "k", 1));
  scratch.write(obstacle, "");
  EXPECT_FALSE(preferences.setValue("suite", "k", 2));
  EXPECT_EQ(errors().size(), 2u);
}

TEST_F(FilePreferencesTest, WhatACrashLeftHalfWrittenIsNoObstacle) {
  write("<dict><key>ha", "suite.plist.new");
  EXPECT_TRUE(preferences.setValue("suite", "k", 1));
  EXPECT_EQ(FilePreferences(folder).value("suite", "k"), Value(1));
  EXPECT_EQ(filesInFolder(), 1u);
}

TEST_F(FilePreferencesTest, WithoutAFolderToWriteInAChangeFails) {
  scratch.write("var", "a file where a folder should be");
  EXPECT_FALSE(preferences.setValue("suite", "k", 1));
  EXPECT_FALSE(preferences.setValue("suite", "k", 1));
  EXPECT_EQ(errors(), (std::vector<std::string>{"FilePreferences: cannot lock " + folder +
                                                ": Not a directory"}));
}

TEST_F(FilePreferencesTest, ValuesThatCouldNotBeReadAgainAreRefused) {
  preferences.setValue("suite", "k", 1);
  Value deep = Array{};
  for (int i = 0; i < 40; ++i) deep = Array{deep};
  EXPECT_FALSE(preferences.setValue("suite", "k", deep));
  EXPECT_FALSE(preferences.setValue("suite", "k", std::string(PropertyListLimits().bytes, 'x')));
  ASSERT_EQ(errors().size(), 2u);
  EXPECT_EQ(errors()[0].find("FilePreferences: a change of " + file() + " is refused: "), 0u);
  EXPECT_EQ(preferences.value("suite", "k"), Value(1));
}

TEST_F(FilePreferencesTest, NoNameLeadsOutOfTheFolder) {
  const std::vector<std::string> names = {"",
                                          ".",
                                          "..",
                                          "../outside",
                                          "a/b",
                                          "/etc/x",
                                          ".hidden",
                                          std::string("a\0b", 3),
                                          "a b",
                                          "\u00fc",
                                          std::string(201, 'x')};
  std::filesystem::create_directories(folder);
  for (const std::string& name : names) {
    log.clear();
    EXPECT_FALSE(preferences.setValue(name, "k", 1)) << name;
    EXPECT_FALSE(preferences.value(name, "k")) << name;
    EXPECT_TRUE(preferences.keys(name).empty()) << name;
    EXPECT_FALSE(preferences.removeValue(name, "k")) << name;
    const std::string line = "FilePreferences: \"" + name + "\" is no name of a preference suite";
    EXPECT_EQ(log.count(LogLevel::error, logLine(line, line.size())), 4);
  }
  EXPECT_EQ(filesInFolder(), 0u);
  EXPECT_TRUE(preferences.setValue(std::string(200, 'x'), "k", 1));
  EXPECT_TRUE(preferences.setValue("com.halcyon.corvid_2-x", "k", 1));
}

TEST_F(FilePreferencesTest, WritersInOtherProcessesLoseNothing) {
  constexpr int writers = 4, changes = 25;
  std::vector<ChildProcess> children;
  for (int w = 0; w < writers; ++w)
    children.emplace_back([&, w] {
      FilePreferences own(folder);
      int failed = 0;
      for (int i = 0; i < changes; ++i)
        failed += !own.setValue("suite", fmt::format("{}.{}", w, i), i);
      return failed;
    });
  for (ChildProcess& child : children) EXPECT_EQ(child.waitForExit(), 0);
  EXPECT_EQ(preferences.keys("suite").size(), std::size_t{writers} * changes);
  EXPECT_TRUE(errors().empty());
}

TEST_F(FilePreferencesTest, ThreadsMayReadAndWriteAtOnce) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i) {
        preferences.setValue("suite", std::to_string(t), i);
        preferences.keys("suite");
      }
    });
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < 4; ++t) EXPECT_EQ(preferences.value("suite", std::to_string(t)), Value(24));
}

TEST_F(FilePreferencesTest, WhatTheSuperuserWritesBelongsToTheFoldersOwner) {
  if (geteuid() != 0) GTEST_SKIP() << "not the superuser";
  std::filesystem::create_directories(folder);
  ASSERT_EQ(chown(folder.c_str(), 12345, 12346), 0);
  ASSERT_TRUE(preferences.setValue("suite", "k", 1));
  struct stat status {};
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 12345u);
  EXPECT_EQ(status.st_gid, 12346u);
}

}  // namespace
}  // namespace corvid
