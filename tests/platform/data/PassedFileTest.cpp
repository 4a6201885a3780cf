#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <utility>

#include "platform/data/PassedFile.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

class PassedFileTest : public testing::Test {
 protected:
  std::string write(const std::string& content) const {
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  static PassedFile passed(const std::string& path, int flags) {
    return PassedFile(Descriptor(::open(path.c_str(), flags | O_CLOEXEC)));
  }

  const ScratchFolder folder;
  const std::string path = folder.path("file");
};

TEST_F(PassedFileTest, TellsAndReadsARegularFile) {
  PassedFile file = passed(write("some content"), O_RDONLY);
  EXPECT_TRUE(file.attributes().isRegularFile);
  EXPECT_EQ(file.attributes().size, 12u);
  EXPECT_EQ(file.read(0, 12), "some content");
  EXPECT_EQ(file.read(0, 4), "some");
  EXPECT_EQ(file.read(0, 100), "some content");
  EXPECT_EQ(file.read(5, 4), "cont");
  EXPECT_EQ(file.read(12, 4), "");
}

TEST_F(PassedFileTest, ReadsFromTheStartWhereverTheClientHasMovedTo) {
  write("some content");
  Descriptor descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(lseek(descriptor.get(), 7, SEEK_SET), 7);
  EXPECT_EQ(PassedFile(std::move(descriptor)).read(0, 12), "some content");
}

TEST_F(PassedFileTest, OnlyARegularFileIsOne) {
  ASSERT_EQ(mkfifo((path + ".pipe").c_str(), 0600), 0);
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const Descriptor other(ends[1]);
  EXPECT_FALSE(passed(folder.path(), O_RDONLY).attributes().isRegularFile);
  EXPECT_FALSE(passed("/dev/zero", O_RDONLY).attributes().isRegularFile);
  EXPECT_FALSE(passed(path + ".pipe", O_RDONLY | O_NONBLOCK).attributes().isRegularFile);
  EXPECT_FALSE(PassedFile(Descriptor(ends[0])).attributes().isRegularFile);
  EXPECT_FALSE(PassedFile(Descriptor()).attributes().isRegularFile);
}

TEST_F(PassedFileTest, FilesOfTheKernelsOwnMakingCountAsNone) {
  EXPECT_FALSE(passed("/proc/self/status", O_RDONLY).attributes().isRegularFile);
  EXPECT_FALSE(passed("/proc/sys/kernel/ostype", O_RDONLY).attributes().isRegularFile);
  const std::string setting = "/sys/kernel/mm/transparent_hugepage/enabled";
  if (access(setting.c_str(), R_OK) == 0) {
    EXPECT_FALSE(passed(setting, O_RDONLY).attributes().isRegularFile);
  }
}

TEST_F(PassedFileTest, WhatWasNotOpenedForReadingIsNotRead) {
  write("secret");
  EXPECT_EQ(passed(path, O_PATH).read(0, 6), std::nullopt);
  EXPECT_EQ(passed(path, O_WRONLY).read(0, 6), std::nullopt);
  EXPECT_EQ(passed(folder.path(), O_RDONLY).read(0, 6), std::nullopt);
}

TEST_F(PassedFileTest, RemovalIsOnlyNoted) {
  PassedFile file = passed(write("x"), O_RDONLY);
  EXPECT_FALSE(file.isToBeRemoved());
  file.remove();
  EXPECT_TRUE(file.isToBeRemoved());
  EXPECT_EQ(access(path.c_str(), F_OK), 0);
}

}  // namespace
}  // namespace corvid
