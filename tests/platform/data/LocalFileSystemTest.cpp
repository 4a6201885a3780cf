#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <filesystem>

#include "platform/data/LocalFileSystem.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

class LocalFileSystemTest : public testing::Test {
 protected:
  std::string at(const std::string& name) const { return scratch.path() + "/" + name; }
  std::string contentOf(const std::string& path) {
    const auto read = files.readFile(path, 1 << 20);
    return read ? read.value() : "(unreadable)";
  }

  ScratchFolder scratch;
  LocalFileSystem files;
};

TEST_F(LocalFileSystemTest, ListsEveryEntryInNameOrder) {
  for (const char* name : {"b", "a", "C", ".hidden", "d/inner"}) scratch.write(name, "");
  const auto names = files.listDirectory(scratch.path());
  ASSERT_TRUE(names);
  EXPECT_EQ(names.value(), (std::vector<std::string>{".hidden", "C", "a", "b", "d"}));
}

TEST_F(LocalFileSystemTest, AListingThatFailsSaysTheSystemsReason) {
  const auto missing = files.listDirectory(at("missing"));
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.failure().code, ENOENT);
  EXPECT_EQ(missing.failure().message, "No such file or directory");
  const auto noFolder = files.listDirectory(scratch.write("file", ""));
  ASSERT_FALSE(noFolder);
  EXPECT_EQ(noFolder.failure().code, ENOTDIR);
}

TEST_F(LocalFileSystemTest, DirectoriesAreMadeWithTheirParents) {
  EXPECT_TRUE(files.createDirectories(at("a/b/c")));
  EXPECT_TRUE(files.createDirectories(at("a/b/c")));
  EXPECT_TRUE(std::filesystem::is_directory(at("a/b/c")));
  EXPECT_FALSE(files.createDirectories(scratch.write("file", "") + "/below"));
  EXPECT_FALSE(files.createDirectories(at("file")));
}

TEST_F(LocalFileSystemTest, TheCreationDateOfANewFileIsNow) {
  const auto before = std::time(nullptr);
  const auto date = files.creationDate(scratch.write("file", ""));
  ASSERT_TRUE(date);
  EXPECT_GE(date->seconds, before - 1);
  EXPECT_LE(date->seconds, std::time(nullptr) + 1);
  EXPECT_FALSE(files.creationDate(at("missing")));
}

TEST_F(LocalFileSystemTest, ADirectoryHasTheDateOfItsLastChange) {
  const auto before = std::time(nullptr);
  const auto date = files.changeDate(scratch.path());
  ASSERT_TRUE(date);
  EXPECT_GE(date->seconds, before - 1);
  EXPECT_LE(date->seconds, std::time(nullptr) + 1);
  const auto change = [&] {
    std::filesystem::remove(scratch.write("file", ""));
    return *files.changeDate(scratch.path());
  };
  for (int i = 0; i < 100'000 && change() == *date; ++i) {
  }
  EXPECT_NE(change(), *date);
  EXPECT_FALSE(files.changeDate(at("missing")));
}

TEST_F(LocalFileSystemTest, TheCreationDateIsTheEarlierOfBirthAndModification) {
  const std::string file = scratch.write("file", "");
  const auto born = files.creationDate(file);
  ASSERT_TRUE(born);
  const timespec earlier[2] = {{1'000'000'000, 0}, {1'000'000'000, 250'000'999}};
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), earlier, 0), 0);
  EXPECT_EQ(files.creationDate(file), (TimeValue{1'000'000'000, 250'000}));
  const timespec later[2] = {{4'000'000'000, 0}, {4'000'000'000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), later, 0), 0);
  struct statx status {};
  ASSERT_EQ(statx(AT_FDCWD, file.c_str(), 0, STATX_BTIME, &status), 0);
  if (!(status.stx_mask & STATX_BTIME)) GTEST_SKIP() << "this file system keeps no birth times";
  EXPECT_EQ(files.creationDate(file)->seconds, status.stx_btime.tv_sec);
}

TEST_F(LocalFileSystemTest, TellsTheSizeOfAFileAndZeroOfNone) {
  EXPECT_EQ(files.size(scratch.write("file", "seven b")), 7u);
  EXPECT_EQ(files.size(at("missing")), 0u);
}

TEST_F(LocalFileSystemTest, CreatesEmptyFilesForTheirOwnerAndLeavesExistingOnesAlone) {
  files.createFile(at("new"));
  EXPECT_TRUE(files.exists(at("new")));
  EXPECT_EQ(contentOf(at("new")), "");
  struct stat status {};
  ASSERT_EQ(stat(at("new").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  scratch.write("old", "content");
  files.createFile(at("old"));
  EXPECT_EQ(contentOf(at("old")), "content");
  files.createFile(at("missing/folder"));
  EXPECT_FALSE(files.exists(at("missing/folder")));
}

TEST_F(LocalFileSystemTest, CreatesNothingBehindASymbolicLink) {
  std::filesystem::create_symlink(at("elsewhere"), at("link"));
  files.createFile(at("link"));
  EXPECT_FALSE(files.exists(at("elsewhere")));
}

TEST_F(LocalFileSystemTest, AppendsThePiecesInOrder) {
  scratch.write("file", "before ");
  EXPECT_FALSE(files.append(at("file"), {"one", " ", "two"}));
  EXPECT_EQ(contentOf(at("file")), "before one two");
}

TEST_F(LocalFileSystemTest, AppendsOnlyToRegularFilesThatExist) {
  EXPECT_EQ(files.append(at("missing"), {"x"}).value_or(Failure()).code, ENOENT);
  EXPECT_FALSE(files.exists(at("missing")));
  EXPECT_TRUE(files.append(scratch.path(), {"x"}));
  EXPECT_EQ(files.append("/dev/null", {"x"}).value_or(Failure()).code, EINVAL);
  ASSERT_EQ(mkfifo(at("pipe").c_str(), 0600), 0);
  EXPECT_TRUE(files.append(at("pipe"), {"x"}));
}

TEST_F(LocalFileSystemTest, AppendsNothingThroughASymbolicLink) {
  const std::string target = scratch.write("target", "");
  std::filesystem::create_symlink(target, at("link"));
  EXPECT_TRUE(files.append(at("link"), {"x"}));
  EXPECT_EQ(contentOf(target), "");
}

TEST_F(LocalFileSystemTest, AnAppendThatFailsOnItsWayLeavesNoPartOfALine) {
  scratch.write("file", "a line\n");
  const auto status = inChild([&] {
    // The next byte that can be written is the fifth from here.
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{11, 11};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
    return files.append(at("file"), {"1234", "5678", "\n"}).value_or(Failure()).code == EFBIG ? 0
                                                                                              : 3;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(contentOf(at("file")), "a line\n");
}

TEST_F(LocalFileSystemTest, FindsTheEndOfALine) {
  const std::string file = scratch.write("file", "one\ntwo\nthree");
  EXPECT_EQ(files.endOfLine(file, 1, 13), 4u);
  EXPECT_EQ(files.endOfLine(file, 4, 13), 4u) << "where the line ends already";
  EXPECT_EQ(files.endOfLine(file, 5, 13), 8u);
  EXPECT_EQ(files.endOfLine(file, 5, 7), 5u) << "not beyond the latest";
  EXPECT_EQ(files.endOfLine(file, 9, 13), 9u) << "a line that does not end";
  EXPECT_EQ(files.endOfLine(at("missing"), 5, 7), 5u);
  const std::string far = scratch.write("far", std::string(100'000, 'x') + '\n');
  EXPECT_EQ(files.endOfLine(far, 1, 100'001), 1u);
}

TEST_F(LocalFileSystemTest, TakesRangesOutInPlace) {
  const std::string file = scratch.write("file", "0123456789");
  struct stat before {};
  ASSERT_EQ(stat(file.c_str(), &before), 0);
  EXPECT_FALSE(files.removeRanges(file, {{0, 2}, {2, 3}, {5, 8}}));
  EXPECT_EQ(contentOf(file), "3489");
  struct stat after {};
  ASSERT_EQ(stat(file.c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_FALSE(files.removeRanges(file, {}));
  EXPECT_FALSE(files.removeRanges(file, {{2, 4}}));
  EXPECT_EQ(contentOf(file), "34");
}

TEST_F(LocalFileSystemTest, WhatIsLargerThanABufferIsMovedWhole) {
  std::string content;
  while (content.size() < 900'000) content += std::to_string(content.size()) + ' ';
  const std::string file = scratch.write("file", content);
  EXPECT_FALSE(files.removeRanges(file, {{10, 50'010}}));
  content.erase(10, 50'000);
  EXPECT_TRUE(contentOf(file) == content);
}

TEST_F(LocalFileSystemTest, TakesRangesOfNoLinkAndOfNothingThatIsNoFile) {
  const std::string target = scratch.write("target", "0123456789");
  std::filesystem::create_symlink(target, at("link"));
  EXPECT_TRUE(files.removeRanges(at("link"), {{0, 5}}));
  EXPECT_TRUE(files.removeRanges(at("missing"), {{0, 5}}));
  EXPECT_EQ(contentOf(target), "0123456789");
}

TEST_F(LocalFileSystemTest, ReadsWholeRegularFilesUpToTheLimit) {
  const std::string content = std::string(10'000, 'x') + '\0' + "end";
  scratch.write("file", content);
  const auto whole = files.readFile(at("file"), content.size());
  ASSERT_TRUE(whole);
  EXPECT_EQ(whole.value(), content);
  const auto tooLong = files.readFile(at("file"), content.size() - 1);
  ASSERT_FALSE(tooLong);
  EXPECT_EQ(tooLong.failure().code, EFBIG);
  EXPECT_EQ(files.readFile(at("missing"), 1).failure().code, ENOENT);
  EXPECT_EQ(files.readFile(scratch.path(), 1).failure().code, EISDIR);
  EXPECT_FALSE(files.readFile("/dev/zero", 1));
}

TEST_F(LocalFileSystemTest, RemovesFilesAndIgnoresWhatIsMissing) {
  scratch.write("file", "");
  files.remove(at("file"));
  EXPECT_FALSE(files.exists(at("file")));
  files.remove(at("file"));
  files.remove(scratch.path());
  EXPECT_TRUE(files.exists(scratch.path()));
}

TEST(RegularFile, OfTheKernelIsReadThoughItSaysItIsEmpty) {
  const auto read = readRegularFile("/proc/self/status");
  ASSERT_TRUE(read);
  EXPECT_NE(read.value().find("Pid:"), std::string::npos);
}

TEST(RegularFile, ThatIsMissingIsAFailureWithTheSystemsReason) {
  const auto read = readRegularFile("/nonexistent/file");
  ASSERT_FALSE(read);
  EXPECT_EQ(read.failure().code, ENOENT);
}

TEST(RegularFile, ThatIsNoRegularFileIsAFailureAndBlocksNobody) {
  const ScratchFolder scratch;
  const std::string pipe = scratch.path() + "/pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_FALSE(readRegularFile(pipe));
}

TEST_F(LocalFileSystemTest, AFileWithoutANameIsReadAsItWasWrittenAndSeenNowhere) {
  const auto created = files.createUnnamedFile(scratch.path());
  ASSERT_TRUE(created);
  UnnamedFile& file = *created.value();
  EXPECT_EQ(file.size(), 0u);
  EXPECT_FALSE(file.append("one, "));
  EXPECT_FALSE(file.append("two"));
  EXPECT_EQ(file.size(), 8u);
  std::string room(5, '\0');
  EXPECT_EQ(file.read(2, room), 5u);
  EXPECT_EQ(room, "e, tw");
  EXPECT_EQ(file.read(6, room), 2u);
  EXPECT_EQ(file.read(8, room), 0u);
  EXPECT_TRUE(std::filesystem::is_empty(scratch.path()));
  const auto nowhere = files.createUnnamedFile(at("missing"));
  ASSERT_FALSE(nowhere);
  EXPECT_EQ(nowhere.failure().code, ENOENT);
}

TEST_F(LocalFileSystemTest, AFileWithoutANameSaysThatTheDiskIsFull) {
  EXPECT_EQ(inChild([&] {
              const auto created = files.createUnnamedFile(scratch.path());
              const rlimit few{100, 100};
              std::signal(SIGXFSZ, SIG_IGN);
              if (!created || setrlimit(RLIMIT_FSIZE, &few) != 0) return 2;
              const auto failure = created.value()->append(std::string(200, 'x'));
              return failure && failure->code == EFBIG ? 0 : 1;
            }),
            0);
}

TEST(RegularFile, IsMadeOnlyWhereNothingIs) {
  const ScratchFolder scratch;
  const std::string path = scratch.path() + "/new";
  EXPECT_FALSE(createRegularFile(path, "one"));
  const auto failure = createRegularFile(path, "two");
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, EEXIST);
  EXPECT_NE(failure->message.find(path), std::string::npos);
  EXPECT_EQ(readRegularFile(path).value(), "one");
  ASSERT_EQ(symlink("missing", (scratch.path() + "/link").c_str()), 0);
  EXPECT_TRUE(createRegularFile(scratch.path() + "/link", "two")) << "a link may lead anywhere";
}

TEST(RegularFile, IsItsOwnersAloneUnlessTheModeSaysMore) {
  const ScratchFolder scratch;
  const auto modeOf = [&](const std::string& name) {
    struct stat status {};
    EXPECT_EQ(stat(scratch.path(name).c_str(), &status), 0);
    return status.st_mode & 0777u;
  };
  const mode_t before = umask(0027);
  EXPECT_FALSE(createRegularFile(scratch.path("own"), "one"));
  EXPECT_FALSE(createRegularFile(scratch.path("shared"), "one", 0666));
  EXPECT_FALSE(replaceRegularFile(scratch.path("replaced"), "one"));
  EXPECT_FALSE(replaceRegularFile(scratch.path("published"), "one", 0666));
  umask(before);
  EXPECT_EQ(modeOf("own"), 0600u);
  EXPECT_EQ(modeOf("shared"), 0640u);
  EXPECT_EQ(modeOf("replaced"), 0600u);
  EXPECT_EQ(modeOf("published"), 0640u);
}

TEST(FileStamp, TellsAChangedFileFromTheOneBefore) {
  const ScratchFolder scratch;
  const std::string path = scratch.write("file", "one");
  const FileStamp before = FileStamp::of(path);
  EXPECT_EQ(FileStamp::of(path), before);
  scratch.write("file", "other");
  EXPECT_NE(FileStamp::of(path), before);
  EXPECT_FALSE(FileStamp::of(path).isSameContent(before));
  EXPECT_EQ(FileStamp::of(scratch.path() + "/missing").error, ENOENT);
}

TEST(FileStamp, KnowsTheContentUnderAnotherNameAndMode) {
  const ScratchFolder scratch;
  const std::string path = scratch.write("file", "one");
  const FileStamp before = FileStamp::of(path);
  std::filesystem::rename(path, scratch.path() + "/moved");
  ASSERT_EQ(chmod((scratch.path() + "/moved").c_str(), 0400), 0);
  EXPECT_TRUE(FileStamp::of(scratch.path() + "/moved").isSameContent(before));
  const FileStamp missing = FileStamp::of(path);
  EXPECT_FALSE(missing.isSameContent(before));
  EXPECT_FALSE(missing.isSameContent(missing)) << "no file has no content";
}

}  // namespace
}  // namespace corvid
