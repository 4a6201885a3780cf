#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "base/Descriptor.h"
#include "platform/system/FolderWatch.h"
#include "tests/fakes/CapturedLog.h"
#include "tests/platform/system/SandboxFixture.h"
#include "tests/support/ChildProcess.h"

namespace corvid {
namespace {

namespace fs = std::filesystem;

// The kernel tells before the call that makes the change returns.
bool tells(const FolderWatch& watch) {
  pollfd waiting{watch.descriptor(), POLLIN, 0};
  return poll(&waiting, 1, 0) == 1;
}

class FolderWatchTest : public testing::Test {
 protected:
  // Whether the watch tells of it, once.
  bool sees(const FolderWatch& watch, const std::function<void()>& change) {
    EXPECT_FALSE(tells(watch));
    change();
    const bool told = tells(watch);
    watch.takeChanges();
    EXPECT_FALSE(tells(watch));
    watch.watch();
    return told;
  }

  CapturedLog log;
  ScratchFolder root;
  const std::string folder = root.path("etc/corvid/entitlements.d");
};

TEST_F(FolderWatchTest, TellsOfEveryChangeOfAFile) {
  root.write("etc/corvid/entitlements.d/a.plist", "1");
  root.write("elsewhere/b.plist", "2");
  const FolderWatch watch(folder);
  EXPECT_TRUE(sees(watch, [&] { root.write("etc/corvid/entitlements.d/a.plist", "2"); }));
  EXPECT_TRUE(sees(watch, [&] { chmod((folder + "/a.plist").c_str(), 0); }));
  EXPECT_TRUE(sees(watch, [&] { fs::rename(folder + "/a.plist", folder + "/c.plist"); }));
  EXPECT_TRUE(
      sees(watch, [&] { fs::rename(root.path("elsewhere/b.plist"), folder + "/c.plist"); }));
  EXPECT_TRUE(sees(watch, [&] { fs::create_symlink("nowhere", folder + "/d.plist"); }));
  EXPECT_TRUE(sees(watch, [&] { fs::remove(folder + "/c.plist"); }));
  EXPECT_TRUE(sees(watch, [&] { chmod(folder.c_str(), 0); }));
}

TEST_F(FolderWatchTest, TellsNothingOfReading) {
  root.write("etc/corvid/entitlements.d/a.plist", "1");
  const FolderWatch watch(folder);
  EXPECT_FALSE(sees(watch, [&] { contentOf(folder + "/a.plist"); }));
  EXPECT_FALSE(sees(watch, [&] { root.write("etc/elsewhere", "1"); }));
}

TEST_F(FolderWatchTest, FollowsAFolderThatIsMadeReplacedOrRemoved) {
  fs::create_directories(root.path("etc/corvid"));
  const FolderWatch watch(folder);
  EXPECT_TRUE(sees(watch, [&] { fs::create_directory(folder); }));
  EXPECT_TRUE(sees(watch, [&] { root.write("etc/corvid/entitlements.d/a.plist", "1"); }));
  root.write("etc/corvid.new/entitlements.d/b.plist", "2");
  EXPECT_TRUE(sees(watch, [&] { fs::rename(folder, root.path("etc/corvid.new/old")); }));
  EXPECT_TRUE(sees(watch, [&] { fs::rename(root.path("etc/corvid.new/entitlements.d"), folder); }));
  EXPECT_TRUE(sees(watch, [&] { root.write("etc/corvid/entitlements.d/b.plist", "3"); }));
  EXPECT_TRUE(sees(watch, [&] { fs::remove_all(folder); }));
}

TEST_F(FolderWatchTest, FollowsALinkThatIsReplaced) {
  root.write("one/a.plist", "1");
  root.write("two/a.plist", "2");
  fs::create_directories(root.path("etc/corvid"));
  fs::create_symlink(root.path("one"), folder);
  const FolderWatch watch(folder);
  EXPECT_TRUE(sees(watch, [&] { root.write("one/a.plist", "3"); }));
  fs::create_symlink(root.path("two"), root.path("link"));
  EXPECT_TRUE(sees(watch, [&] { fs::rename(root.path("link"), folder); }));
  EXPECT_TRUE(sees(watch, [&] { root.write("two/a.plist", "3"); }));
}

TEST_F(FolderWatchTest, WatchesFromTheNextTimeWhatWasNotThereAtFirst) {
  const FolderWatch watch(folder);
  root.write("etc/corvid/entitlements.d/a.plist", "1");
  EXPECT_FALSE(tells(watch));
  watch.watch();
  EXPECT_TRUE(sees(watch, [&] { root.write("etc/corvid/entitlements.d/a.plist", "2"); }));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(FolderWatchTest, WarnsOnceOfAFolderThatCannotBeWatched) {
  fs::create_directories(folder);
  EXPECT_EQ(inChild([&] {
              if (getuid() == 0 && setuid(4712) != 0) return 1;
              chmod(folder.c_str(), 0);  // by its owner, where that is not root
              const FolderWatch watch(folder);
              watch.watch();
              return static_cast<int>(log.texts(LogLevel::warning).size()) + 10;
            }),
            11);
}

class FolderWatchInTheSandbox : public SandboxFixture {};

TEST_F(FolderWatchInTheSandbox, TellsAsOutside) {
  root.write("etc/corvid/entitlements.d/a.plist", "1");
  const Descriptor watched(eventfd(0, EFD_CLOEXEC));
  ChildProcess child([&] {
    if (sandboxInit(profileName, paths, deployment)) return notEntered;
    const FolderWatch watch(root.path("etc/corvid/entitlements.d"));
    eventfd_write(watched.get(), 1);
    pollfd change{watch.descriptor(), POLLIN, 0};
    if (poll(&change, 1, 20'000) != 1) return 1;
    watch.takeChanges();
    return tells(watch) ? 2 : 0;
  });
  pollfd waiting{watched.get(), POLLIN, 0};
  EXPECT_EQ(poll(&waiting, 1, 20'000), 1);
  fs::remove(root.path("etc/corvid/entitlements.d/a.plist"));
  EXPECT_EQ(child.waitForExit(), 0);
}

}  // namespace
}  // namespace corvid
