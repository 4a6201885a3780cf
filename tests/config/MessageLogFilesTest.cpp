// The message log on the machine's own files.
#include <gtest/gtest.h>

#include <algorithm>
#include <barrier>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>
#include <vector>

#include "base/ActingUser.h"
#include "config/MessageLog.h"
#include "platform/data/LocalFileSystem.h"
#include "tests/fakes/TestPlatform.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

namespace fs = std::filesystem;

class MessageLogFiles : public testing::Test {
 protected:
  MessageLogFiles() {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    fakes.clock->set({std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch).count() + 1, 0});
    Platform::Services services;
    services.clock = fakes.clock;
    services.files = std::make_shared<LocalFileSystem>();
    services.paths = Paths(root.path());
    _platform = std::make_unique<Platform>(std::move(services));
    Platform::install(_platform.get());
  }

  std::set<std::string> names() const {
    std::set<std::string> found;
    for (const auto& entry : fs::directory_iterator(folder)) found.insert(entry.path().filename());
    return found;
  }
  std::string currentName() const {
    return fmt::format("corvidd_{}_messageLog.diag", fakes.clock->now().seconds);
  }
  static void write(const fs::path& file, std::string_view text) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
  }

  TestPlatform fakes;
  const ScratchFolder root;
  const fs::path folder = root.path("var/lib/corvidd/Library/Logs/Faultline/Retired");

 private:
  std::unique_ptr<Platform> _platform;
};

TEST_F(MessageLogFiles, TheFirstMessageMakesFoldersAndFile) {
  writeToLogFile("one");
  writeToLogFile("two");
  EXPECT_EQ(names(), std::set{currentName()});
  const std::string text = contentOf(folder / currentName());
  EXPECT_TRUE(text.starts_with("(20")) << text;
  EXPECT_NE(text.find(" +0000) one\n("), std::string::npos) << text;
  EXPECT_TRUE(text.ends_with(" +0000) two\n")) << text;
  EXPECT_TRUE(fakes.log.texts(LogLevel::error).empty());
}

TEST_F(MessageLogFiles, ADayLaterANewFileReplacesTheOld) {
  writeToLogFile("one");
  fakes.clock->advance(std::chrono::seconds(86400 + 60));
  writeToLogFile("two");
  EXPECT_EQ(names(), std::set{currentName()});
  EXPECT_EQ(contentOf(folder / currentName()).find("one"), std::string::npos);
}

TEST_F(MessageLogFiles, AFileThatIsRemovedIsMadeAnew) {
  writeToLogFile("one");
  fakes.clock->advance(std::chrono::seconds(60));
  writeToLogFile("two");
  fs::remove(*fs::directory_iterator(folder));
  writeToLogFile("three");
  EXPECT_EQ(names(), std::set{currentName()});
  EXPECT_TRUE(contentOf(folder / currentName()).ends_with(" three\n"));
}

TEST_F(MessageLogFiles, AFileCopiedFromEarlierCountsByItsModification) {
  const fs::path copied = folder / "corvidd_1_messageLog.diag";
  write(copied, "old\n");
  fs::last_write_time(copied, fs::file_time_type::clock::now() - std::chrono::hours(25));
  writeToLogFile("new");
  EXPECT_EQ(names(), std::set{currentName()});
}

TEST_F(MessageLogFiles, ALinkIsRemovedAndItsTargetLeftAlone) {
  const fs::path target = folder.parent_path() / "precious";
  write(target, "precious\n");
  fs::create_directories(folder);
  fs::create_symlink(target, folder / "corvidd_1_messageLog.diag");
  writeToLogFile("lost");
  EXPECT_TRUE(names().empty());
  EXPECT_EQ(contentOf(target), "precious\n");
  writeToLogFile("kept");
  EXPECT_EQ(names(), std::set{currentName()});
}

TEST_F(MessageLogFiles, SessionsThatLogAtOnceShareTheFileAndLoseNothing) {
  constexpr int threads = 4, messages = 25;
  std::barrier meeting{threads};
  std::vector<std::thread> sessions;
  for (int session = 0; session < threads; ++session)
    sessions.emplace_back([&, session] {
      meeting.arrive_and_wait();
      for (int i = 0; i < messages; ++i) writeToLogFile("<{}.{}>", session, i);
    });
  for (std::thread& session : sessions) session.join();
  ASSERT_EQ(names(), std::set{currentName()});
  const std::string text = contentOf(folder / currentName());
  for (int session = 0; session < threads; ++session)
    for (int i = 0; i < messages; ++i) {
      const std::string message = fmt::format("<{}.{}>", session, i);
      const std::size_t at = text.find(message);
      EXPECT_NE(at, std::string::npos) << message;
      EXPECT_EQ(text.find(message, at + 1), std::string::npos) << message << " twice";
    }
}

TEST_F(MessageLogFiles, AFloodOfOneTakesNoLineOfAnotherAndKeepsItsOwnLastHalf) {
  const auto write = [](User user, std::string_view text) {
    const ActingFor acting(user);
    writeToLogFile(text);
  };
  write(1000, "of the victim");
  const std::string text(std::size_t{1} << 20, 'x');
  for (std::size_t written = 0; written < 2 * mostMessageLogBytes; written += text.size())
    write(1001, text);
  write(1001, "the last of the flood");
  ASSERT_EQ(names(), std::set{currentName()});
  const std::string log = contentOf(folder / currentName());
  EXPECT_NE(log.find(") of the victim\n"), std::string::npos);
  EXPECT_TRUE(log.ends_with(") the last of the flood\n"));
  EXPECT_LE(log.size(), mostMessageLogBytes + 2 * text.size());
  EXPECT_GE(log.size(), mostMessageLogBytes / 2);
  EXPECT_EQ(std::ranges::count(log, '\0'), 0) << "nothing was left where lines were taken out";
}

TEST_F(MessageLogFiles, OtherFilesStay) {
  write(folder / "corvidd_1_2_messageLog.diag", "other\n");
  writeToLogFile("one");
  EXPECT_EQ(names(), (std::set<std::string>{"corvidd_1_2_messageLog.diag", currentName()}));
  EXPECT_EQ(contentOf(folder / "corvidd_1_2_messageLog.diag"), "other\n");
}

}  // namespace
}  // namespace corvid
