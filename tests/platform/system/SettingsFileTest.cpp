#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/system/SettingsFile.h"
#include "tests/platform/system/Scratch.h"

namespace corvid {
namespace {

TEST(SettingsFile, OfTheKernelIsReadThoughItSaysItIsEmpty) {
  const auto read = readSettingsFile("/proc/self/status");
  ASSERT_TRUE(read);
  EXPECT_NE(read.value().find("Pid:"), std::string::npos);
}

TEST(SettingsFile, ThatIsMissingIsAFailureWithTheSystemsReason) {
  const auto read = readSettingsFile("/nonexistent/file");
  ASSERT_FALSE(read);
  EXPECT_EQ(read.failure().code, ENOENT);
}

TEST(SettingsFile, ThatIsNoRegularFileIsAFailureAndBlocksNobody) {
  const Scratch scratch;
  const std::string pipe = scratch.path() + "/pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_FALSE(readSettingsFile(pipe));
}

TEST(DictionaryFile, IsReadFromItsPropertyList) {
  const Scratch scratch;
  const auto read = readDictionaryFile(scratch.write(
      "a.plist", "<plist version=\"1.0\"><dict><key>a</key><integer>1</integer></dict></plist>"));
  ASSERT_TRUE(read);
  EXPECT_EQ(read.value(), (Dictionary{{"a", 1}}));
}

TEST(DictionaryFile, ThatCannotBeUsedIsAFailureThatNamesIt) {
  const Scratch scratch;
  const std::string damaged = scratch.write("damaged.plist", "<plist><dict>");
  const std::string array = scratch.write("array.plist", "<plist><array/></plist>");
  const std::string missing = scratch.path() + "/missing.plist";
  for (const std::string& path : {damaged, array, missing}) {
    const auto read = readDictionaryFile(path);
    ASSERT_FALSE(read) << path;
    EXPECT_EQ(read.failure().message.find(path + ": "), 0u) << read.failure().message;
  }
  EXPECT_EQ(readDictionaryFile(array).failure().message, array + ": not a dictionary");
}

}  // namespace
}  // namespace corvid
