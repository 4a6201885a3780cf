#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/system/SmallFile.h"
#include "tests/platform/system/Scratch.h"

namespace corvid {
namespace {

TEST(SmallFile, IsReadWhole) {
  const Scratch scratch;
  const std::string content = std::string(10'000, 'x') + '\0' + "end";
  const auto read = readSmallFile(scratch.write("file", content));
  ASSERT_TRUE(read);
  EXPECT_EQ(read.value(), content);
}

TEST(SmallFile, MayBeAsLongAsTheLimitAndNoLonger) {
  const Scratch scratch;
  const std::string file = scratch.write("file", "12345");
  EXPECT_TRUE(readSmallFile(file, 5));
  const auto tooLong = readSmallFile(file, 4);
  ASSERT_FALSE(tooLong);
  EXPECT_EQ(tooLong.failure().code, EFBIG);
}

TEST(SmallFile, OfTheKernelIsReadThoughItSaysItIsEmpty) {
  const auto read = readSmallFile("/proc/self/status");
  ASSERT_TRUE(read);
  EXPECT_NE(read.value().find("Pid:"), std::string::npos);
}

TEST(SmallFile, ThatIsMissingIsAFailureWithTheSystemsReason) {
  const auto read = readSmallFile("/nonexistent/file");
  ASSERT_FALSE(read);
  EXPECT_EQ(read.failure().code, ENOENT);
  EXPECT_EQ(read.failure().message, "No such file or directory");
}

TEST(SmallFile, ThatIsAFolderOrAPipeIsAFailureAndBlocksNobody) {
  const Scratch scratch;
  const auto folder = readSmallFile(scratch.path());
  ASSERT_FALSE(folder);
  EXPECT_EQ(folder.failure().code, EISDIR);
  const std::string pipe = scratch.path() + "/pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_FALSE(readSmallFile(pipe));
}

TEST(AssignedValue, IsFoundByItsWholeName) {
  const std::string_view text = "VERSION=\"12 (x)\"\nVERSION_ID=\"12\"\nID=debian\n";
  EXPECT_EQ(assignedValue(text, "VERSION_ID"), "12");
  EXPECT_EQ(assignedValue(text, "VERSION"), "12 (x)");
  EXPECT_EQ(assignedValue(text, "ID"), "debian");
  EXPECT_EQ(assignedValue(text, "BUILD_ID"), std::nullopt);
}

TEST(AssignedValue, LosesItsQuotesAndBackslashes) {
  EXPECT_EQ(assignedValue("A='x \"y\" \\z'", "A"), "x \"y\" \\z");
  EXPECT_EQ(assignedValue("A=\"x \\\"y\\\" 'z'\"", "A"), "x \"y\" 'z'");
  EXPECT_EQ(assignedValue("A=x\\ y", "A"), "x y");
  EXPECT_EQ(assignedValue("A=\\", "A"), "\\");
}

TEST(AssignedValue, IsTheLastOneAndNoComment) {
  EXPECT_EQ(assignedValue("A=1\n  A=2 \r\n#A=3\n", "A"), "2");
}

TEST(AssignedValue, ThatIsEmptyIsNone) {
  EXPECT_EQ(assignedValue("A=", "A"), std::nullopt);
  EXPECT_EQ(assignedValue("A=\"\"", "A"), std::nullopt);
  EXPECT_EQ(assignedValue("A", "A"), std::nullopt);
  EXPECT_EQ(assignedValue("", "A"), std::nullopt);
}

}  // namespace
}  // namespace corvid
