#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "base/ActingUser.h"
#include "config/MessageLog.h"
#include "tests/fakes/TestPlatform.h"

namespace corvid {
namespace {

const std::string directory = "/nonexistent/root/var/lib/corvidd/Library/Logs/Faultline/Retired";
constexpr std::int64_t now = 1'700'000'000;
const std::string newFile = directory + "/corvidd_1700000000_messageLog.diag";

struct MessageLog : testing::Test {
  MessageLog() { platform.files->directories.insert(directory); }

  std::string add(const std::string& name, std::optional<TimeValue> created) {
    const std::string path = directory + "/" + name;
    platform.files->files[path] = {"", created};
    return path;
  }
  bool exists(const std::string& path) const { return platform.files->files.contains(path); }
  const std::string& content(const std::string& path) const {
    return platform.files->files.at(path).content;
  }
  bool deletionLogged(const std::string& path, std::string_view date) const {
    return platform.log.has(
        LogLevel::info,
        fmt::format("writeToLogFile: Deleted expired corvidd log file {} ({})", path, date));
  }

  TestPlatform platform;
};

TEST_F(MessageLog, AnEmptyDirectoryGetsOneNewFileWithTheLine) {
  writeToLogFile("hello");
  EXPECT_EQ(platform.files->files.size(), 1u);
  EXPECT_EQ(content(newFile), "(2023-11-14 22:13:20 +0000) hello\n");
  EXPECT_EQ(platform.log.texts(LogLevel::info),
            (std::vector<std::string>{
                "writeToLogFile: Created new corvidd log file " + newFile +
                    " (2023-11-14 22:13:20 +0000)",
                "writeToLogFile: Saved log message to " + newFile,
            }));
  EXPECT_EQ(platform.log.lines().size(), 2u);
}

TEST_F(MessageLog, FormatsItsArguments) {
  writeToLogFile("{}: {:.2f} of {}", "sampled", 0.5, std::string("lumen"));
  EXPECT_EQ(content(newFile), "(2023-11-14 22:13:20 +0000) sampled: 0.50 of lumen\n");
}

TEST_F(MessageLog, ATextAloneIsWrittenAsItStands) {
  writeToLogFile("100% {} %s {0");
  EXPECT_EQ(content(newFile), "(2023-11-14 22:13:20 +0000) 100% {} %s {0\n");
}

TEST_F(MessageLog, AMissingDirectoryIsCreated) {
  platform.files->directories.clear();
  writeToLogFile("hello");
  EXPECT_TRUE(platform.files->directories.contains(directory));
  EXPECT_EQ(content(newFile), "(2023-11-14 22:13:20 +0000) hello\n");
  EXPECT_TRUE(platform.log.has(LogLevel::info,
                               "writeToLogFile: Creating corvidd log directory at " + directory));
  EXPECT_TRUE(platform.log.texts(LogLevel::error).empty());
}

TEST_F(MessageLog, ADirectoryThatCannotBeCreatedLosesTheMessage) {
  platform.files->directories.clear();
  platform.files->failCreateDirectories = true;
  writeToLogFile("hello");
  EXPECT_TRUE(platform.files->files.empty());
  EXPECT_EQ(
      platform.log.texts(LogLevel::info),
      (std::vector<std::string>{"writeToLogFile: Creating corvidd log directory at " + directory}));
  EXPECT_EQ(platform.log.texts(LogLevel::error),
            (std::vector<std::string>{"writeToLogFile: Failed to create new corvidd log file " +
                                      newFile}));
}

TEST_F(MessageLog, AnyOtherListingErrorIsLoggedAndTakenAsAnEmptyListing) {
  const std::string older = add("corvidd_1_messageLog.diag", TimeValue{now - 90000, 0});
  platform.files->listFailure = Failure{"Permission denied", EACCES};
  writeToLogFile("hello");
  EXPECT_EQ(platform.log.texts(LogLevel::error),
            (std::vector<std::string>{
                "writeToLogFile: Error reading from log directory: Permission denied"}));
  EXPECT_FALSE(platform.log.anyContains("Creating corvidd log directory"));
  EXPECT_TRUE(exists(older));
  EXPECT_EQ(content(newFile), "(2023-11-14 22:13:20 +0000) hello\n");
}

TEST_F(MessageLog, AFileThatCannotBeCreatedLosesTheMessage) {
  platform.files->failCreateFile = true;
  writeToLogFile("hello");
  EXPECT_TRUE(platform.files->files.empty());
  EXPECT_EQ(platform.log.lines().size(), 1u);
  EXPECT_TRUE(platform.log.has(LogLevel::error,
                               "writeToLogFile: Failed to create new corvidd log file " + newFile));
}

TEST_F(MessageLog, TheFileOfTodayReceivesFurtherLines) {
  writeToLogFile("one");
  platform.clock->advance(std::chrono::seconds(3600));
  platform.log.clear();
  writeToLogFile("two");
  EXPECT_EQ(platform.files->files.size(), 1u);
  EXPECT_EQ(content(newFile), "(2023-11-14 22:13:20 +0000) one\n(2023-11-14 23:13:20 +0000) two\n");
  EXPECT_EQ(platform.log.lines().size(), 1u);
  EXPECT_TRUE(platform.log.has(LogLevel::info, "writeToLogFile: Saved log message to " + newFile));
}

TEST_F(MessageLog, TheFolderIsListedOnlyAfterAChange) {
  writeToLogFile("makes the file");
  writeToLogFile("finds it");
  platform.files->listings = 0;
  for (int i = 0; i < 10; ++i) writeToLogFile("more");
  EXPECT_EQ(platform.files->listings, 0);
  add("other", std::nullopt);
  writeToLogFile("more");
  EXPECT_EQ(platform.files->listings, 1);
}

TEST_F(MessageLog, AFolderThatHasJustChangedIsListedAgain) {
  const std::string file = add("corvidd_1_messageLog.diag", std::nullopt);
  const TimeValue change = *platform.files->changeDate(directory);
  platform.files->files[file].created = change;
  platform.clock->set(change);
  for (int i = 0; i < 3; ++i) writeToLogFile("more");
  EXPECT_EQ(platform.files->listings, 3);
  platform.clock->advance(std::chrono::seconds(2));
  for (int i = 0; i < 3; ++i) writeToLogFile("more");
  EXPECT_EQ(platform.files->listings, 4);
}

TEST_F(MessageLog, AFileThatAppearsIsSeenAtTheNextLine) {
  writeToLogFile("one");
  writeToLogFile("two");
  const std::string older = add("corvidd_0_messageLog.diag", TimeValue{now - 100, 0});
  writeToLogFile("three");
  EXPECT_FALSE(exists(older));
  const std::string newer = add("corvidd_1_messageLog.diag", TimeValue{now + 100, 0});
  writeToLogFile("four");
  EXPECT_FALSE(exists(newFile));
  EXPECT_EQ(content(newer), "(2023-11-14 22:13:20 +0000) four\n");
}

TEST_F(MessageLog, AFileThatIsGoneIsReplacedAtTheNextLine) {
  writeToLogFile("one");
  writeToLogFile("two");
  platform.files->files.clear();
  writeToLogFile("three");
  EXPECT_EQ(content(newFile), "(2023-11-14 22:13:20 +0000) three\n");
}

TEST_F(MessageLog, AFileThatTurnsOutOlderExpires) {
  const std::string file = add("corvidd_1_messageLog.diag", TimeValue{now - 100, 0});
  writeToLogFile("one");
  writeToLogFile("two");
  platform.files->files[file].created = TimeValue{now - 86401, 0};
  writeToLogFile("three");
  EXPECT_FALSE(exists(file));
  EXPECT_EQ(content(newFile), "(2023-11-14 22:13:20 +0000) three\n");
}

TEST_F(MessageLog, OfTwoFilesOfTodayTheNewerStays) {
  const std::string older = add("corvidd_1_messageLog.diag", TimeValue{now - 200, 0});
  const std::string newer = add("corvidd_2_messageLog.diag", TimeValue{now - 100, 0});
  writeToLogFile("hello");
  EXPECT_FALSE(exists(older));
  EXPECT_EQ(content(newer), "(2023-11-14 22:13:20 +0000) hello\n");
  EXPECT_TRUE(deletionLogged(older, "2023-11-14 22:10:00 +0000"));
}

TEST_F(MessageLog, TheNewerStaysWhereItIsListedFirst) {
  const std::string newer = add("corvidd_1_messageLog.diag", TimeValue{now - 100, 0});
  const std::string older = add("corvidd_2_messageLog.diag", TimeValue{now - 200, 0});
  writeToLogFile("hello");
  EXPECT_FALSE(exists(older));
  EXPECT_TRUE(exists(newer));
  EXPECT_TRUE(deletionLogged(older, "2023-11-14 22:10:00 +0000"));
}

TEST_F(MessageLog, OfTwoFilesOfOneMomentTheFirstListedStays) {
  const std::string first = add("corvidd_1_messageLog.diag", TimeValue{now - 100, 500});
  const std::string second = add("corvidd_2_messageLog.diag", TimeValue{now - 100, 500});
  const std::string later = add("corvidd_3_messageLog.diag", TimeValue{now - 100, 501});
  writeToLogFile("hello");
  EXPECT_FALSE(exists(second));
  EXPECT_FALSE(exists(first)) << "superseded by the one a microsecond later";
  EXPECT_TRUE(exists(later));
  platform.files->files.clear();
  add("corvidd_1_messageLog.diag", TimeValue{now - 100, 500});
  add("corvidd_2_messageLog.diag", TimeValue{now - 100, 500});
  writeToLogFile("hello");
  EXPECT_TRUE(exists(first));
  EXPECT_FALSE(exists(second));
}

TEST_F(MessageLog, AFileOfADayAndASecondExpires) {
  const std::string expired = add("corvidd_1_messageLog.diag", TimeValue{now - 86401, 0});
  writeToLogFile("hello");
  EXPECT_FALSE(exists(expired));
  EXPECT_TRUE(deletionLogged(expired, "2023-11-13 22:13:19 +0000"));
  EXPECT_EQ(content(newFile), "(2023-11-14 22:13:20 +0000) hello\n");
}

TEST_F(MessageLog, AFileOfExactlyADayStays) {
  const std::string file = add("corvidd_1_messageLog.diag", TimeValue{now - 86400, 0});
  writeToLogFile("hello");
  EXPECT_EQ(content(file), "(2023-11-14 22:13:20 +0000) hello\n");
  EXPECT_EQ(platform.files->files.size(), 1u);
}

TEST_F(MessageLog, AFullFileLosesItsOlderHalfAndStaysTheSame) {
  const std::string file = add("corvidd_1_messageLog.diag", TimeValue{now - 100, 0});
  std::string& whole = platform.files->files[file].content;
  while (whole.size() < mostMessageLogBytes) whole += std::to_string(whole.size()) + "\n";
  const std::string before = whole;
  writeToLogFile("last");
  const std::string line = "(2023-11-14 22:13:20 +0000) last\n";
  ASSERT_TRUE(content(file).ends_with(line));
  const std::string kept = content(file).substr(0, content(file).size() - line.size());
  EXPECT_TRUE(before.ends_with("\n" + kept)) << "whole lines";
  EXPECT_LE(kept.size(), mostMessageLogBytes / 2);
  EXPECT_GT(kept.size(), mostMessageLogBytes / 2 - 10);
  EXPECT_EQ(platform.log.texts(LogLevel::info),
            (std::vector<std::string>{
                "writeToLogFile: Took the oldest lines out of the full corvidd log file " + file,
                "writeToLogFile: Saved log message to " + file}));
}

class MessageLogOfUsers : public MessageLog {
 protected:
  void write(User user, const std::string& text) {
    const ActingFor acting(user);
    writeToLogFile(text);
  }
  // More than the whole log holds.
  void flood(User user, std::size_t bytes = mostMessageLogBytes + mostMessageLogBytes / 2) {
    const std::string text(std::size_t{1} << 20, 'x');
    for (std::size_t written = 0; written < bytes; written += text.size()) write(user, text);
  }
  bool has(std::string_view text) const { return content(newFile).find(text) != std::string::npos; }
};

TEST_F(MessageLogOfUsers, AFloodOfOneTakesNoLineOfAnother) {
  write(1000, "first of the victim");
  flood(1001);
  write(1000, "second of the victim");
  write(1001, "last of the flood");
  flood(1001);
  write(1001, "the very last of the flood");
  EXPECT_TRUE(has(") first of the victim\n"));
  EXPECT_TRUE(has(") second of the victim\n"));
  EXPECT_TRUE(has(") the very last of the flood\n"));
  EXPECT_LT(content(newFile).size(), mostMessageLogBytes + (std::size_t{2} << 20));
  EXPECT_GE(content(newFile).size(), mostMessageLogBytes / 2);
  EXPECT_EQ(platform.files->files.size(), 1u);
  EXPECT_FALSE(platform.log.anyContains("Deleted"));
}

TEST_F(MessageLogOfUsers, OneWhoWritesMostLosesHisOldestOnly) {
  write(1001, "old");
  flood(1001, mostMessageLogBytes);
  write(1001, "new");
  EXPECT_FALSE(has(") old\n"));
  EXPECT_TRUE(has(") new\n"));
  EXPECT_TRUE(content(newFile).starts_with("(2023-11-14")) << "begins with a whole line";
}

TEST_F(MessageLogOfUsers, WhatStoodThereBeforeTheStartGivesWayFirstOnlyWhereItIsMost) {
  write(1000, "kept from before");
  platform.restart();
  flood(1001);
  EXPECT_TRUE(has(") kept from before\n"));
}

TEST_F(MessageLogOfUsers, AFileOfAnotherLengthThanKnownIsCountedAnew) {
  write(1000, "one");
  platform.files->files[newFile].content = std::string(mostMessageLogBytes, 'x') + "\n";
  write(1000, "two");
  EXPECT_LE(content(newFile).size(), mostMessageLogBytes / 2 + 100);
  EXPECT_TRUE(has(") two\n"));
}

TEST_F(MessageLogOfUsers, WhereNoRoomCanBeMadeTheLineIsLostAndTheFileStays) {
  write(1000, "one");
  flood(1001, mostMessageLogBytes);
  platform.log.clear();
  const std::size_t before = content(newFile).size();
  platform.files->removeRangesFailure = Failure{"no", EIO};
  flood(1001, mostMessageLogBytes);
  EXPECT_TRUE(has(") one\n"));
  EXPECT_LT(content(newFile).size(), mostMessageLogBytes + (std::size_t{2} << 20));
  EXPECT_GE(content(newFile).size(), before);
  EXPECT_TRUE(platform.log.has(LogLevel::error,
                               "writeToLogFile: A log message is lost, the log file is full: no"));
}

TEST_F(MessageLog, WhereSpaceOrDescriptorsAreShortTheLineAloneIsLost) {
  for (const int shortage : {ENOSPC, EDQUOT, EMFILE, ENFILE, ENOMEM}) {
    platform.files->files.clear();
    platform.files->failAppendAfter = -1;
    writeToLogFile("kept");
    platform.log.clear();
    platform.files->failAppendAfter = 1;
    platform.files->appendError = shortage;
    writeToLogFile("lost");
    EXPECT_EQ(content(newFile), "(2023-11-14 22:13:20 +0000) kept\n") << shortage;
    EXPECT_EQ(platform.log.texts(LogLevel::error),
              std::vector<std::string>{std::string("writeToLogFile: A log message is lost: ") +
                                       std::strerror(shortage)});
    EXPECT_EQ(platform.log.lines().size(), 1u);
  }
}

TEST_F(MessageLog, AFolderThatCannotBeListedForWantOfDescriptorsGetsNoSecondFile) {
  add("corvidd_1_messageLog.diag", TimeValue{now - 100, 0});
  platform.files->listFailure = Failure{"Too many open files", EMFILE};
  writeToLogFile("lost");
  EXPECT_EQ(platform.files->files.size(), 1u);
  EXPECT_EQ(platform.log.texts(LogLevel::error),
            (std::vector<std::string>{
                "writeToLogFile: Error reading from log directory: Too many open files"}));
}

TEST_F(MessageLog, AgeCountsMicroseconds) {
  platform.clock->set({now, 300000});
  const std::string expired = add("corvidd_1_messageLog.diag", TimeValue{now - 86400, 299999});
  writeToLogFile("hello");
  EXPECT_FALSE(exists(expired));
  const std::string kept = add("corvidd_1_messageLog.diag", TimeValue{now - 86400, 300000});
  platform.files->files.erase(newFile);
  writeToLogFile("hello");
  EXPECT_TRUE(exists(kept));
}

TEST_F(MessageLog, AFileFromTheFutureIsKept) {
  const std::string file = add("corvidd_1_messageLog.diag", TimeValue{now + 500000, 0});
  writeToLogFile("hello");
  EXPECT_EQ(content(file), "(2023-11-14 22:13:20 +0000) hello\n");
}

TEST_F(MessageLog, OnlyNamesOfThreePartsAreLogFiles) {
  const std::vector<std::string> others{
      add("corvidd_1_2_messageLog.diag", TimeValue{1, 0}),
      add("corvidd_messageLog.diag", TimeValue{1, 0}),
      add("corvid_1_messageLog.diag", TimeValue{1, 0}),
      add("corvidd_1_messageLog.diag.gz", TimeValue{1, 0}),
      add("corvidd_1_messageLog.diag_", TimeValue{1, 0}),
      add("Corvidd_1_messageLog.diag", TimeValue{1, 0}),
  };
  writeToLogFile("hello");
  for (const std::string& path : others) {
    EXPECT_TRUE(exists(path)) << path;
    EXPECT_EQ(content(path), "") << path;
  }
  EXPECT_TRUE(exists(newFile));
}

TEST_F(MessageLog, IsNotTouchedWhereTheDeploymentSwitchesItOff) {
  const std::string old = add("corvidd_1_messageLog.diag", TimeValue{now - 100'000, 0});
  Deployment deployment;
  deployment.messageLog = false;
  platform.restart(Paths("/nonexistent/root"), deployment);
  writeToLogFile("hello");
  EXPECT_EQ(content(old), "");
  EXPECT_EQ(platform.files->files.size(), 1u);
  EXPECT_TRUE(platform.log.lines().empty());
}

TEST_F(MessageLog, TheMiddlePartIsNotExamined) {
  for (const std::string name : {"corvidd_x_messageLog.diag", "corvidd__messageLog.diag"}) {
    platform.files->files.clear();
    const std::string file = add(name, TimeValue{now - 5, 0});
    writeToLogFile("hello");
    EXPECT_EQ(content(file), "(2023-11-14 22:13:20 +0000) hello\n");
    EXPECT_EQ(platform.files->files.size(), 1u);
  }
}

TEST_F(MessageLog, AFileWithoutADateNeverExpiresAndCanReceiveLines) {
  const std::string file = add("corvidd_1_messageLog.diag", std::nullopt);
  writeToLogFile("hello");
  EXPECT_EQ(content(file), "(2023-11-14 22:13:20 +0000) hello\n");
}

TEST_F(MessageLog, AFileWithoutADateGivesWayToOneWithADate) {
  const std::string undated = add("corvidd_1_messageLog.diag", std::nullopt);
  const std::string dated = add("corvidd_2_messageLog.diag", TimeValue{now - 100, 0});
  const std::string undatedToo = add("corvidd_3_messageLog.diag", std::nullopt);
  writeToLogFile("hello");
  EXPECT_FALSE(exists(undated));
  EXPECT_FALSE(exists(undatedToo));
  EXPECT_TRUE(exists(dated));
  EXPECT_TRUE(deletionLogged(undated, "(null)"));
}

TEST_F(MessageLog, TheTimeInTheNameIsCutToThirtyTwoBits) {
  platform.clock->set({(std::int64_t{1} << 32) + 5, 0});
  writeToLogFile("hello");
  EXPECT_TRUE(exists(directory + "/corvidd_5_messageLog.diag"));
}

TEST_F(MessageLog, AFailureOfAnyOfTheThreeWritesDeletesTheFile) {
  for (const int written : {0, 1, 2}) {
    platform.files->files.clear();
    platform.log.clear();
    const std::string file = add("corvidd_1_messageLog.diag", TimeValue{now - 100, 0});
    platform.files->failAppendAfter = written;
    writeToLogFile("hello");
    EXPECT_TRUE(platform.files->files.empty()) << written;
    EXPECT_TRUE(deletionLogged(file, "2023-11-14 22:11:40 +0000")) << written;
    EXPECT_EQ(platform.log.lines().size(), 1u) << written;
  }
  platform.files->failAppendAfter = 3;
  writeToLogFile("hello");
  EXPECT_EQ(content(newFile), "(2023-11-14 22:13:20 +0000) hello\n");
}

TEST_F(MessageLog, ANewFileThatCannotBeWrittenIsDeletedToo) {
  platform.files->failAppendAfter = 0;
  writeToLogFile("hello");
  EXPECT_TRUE(platform.files->files.empty());
  EXPECT_TRUE(deletionLogged(newFile, "2023-11-14 22:13:20 +0000"));
  EXPECT_FALSE(platform.log.anyContains("Saved log message"));
}

}  // namespace
}  // namespace corvid
