// Entitlements that change while clients are connected.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <string_view>

#include "tests/e2e/LabFixture.h"
#include "tests/rpc/WireClient.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

namespace fs = std::filesystem;

constexpr uid_t strangerUser = 4712;
constexpr std::string_view accepting = "listener: Accepting new IPC connection";
constexpr std::string_view tookBack = ": an entitlement was taken back";

class EntitlementChanges : public LabFixture {
 protected:
  void SetUp() override {
    publish("lumen", storebagPostingTo(urlOf("events")));
    startDaemon();
  }
  std::string socketPath() const { return _root.path("run/corvidd/com.halcyon.corvidd"); }

  void write(std::string_view name, uid_t user, bool entitled) const {
    _root.write(fmt::format("etc/corvid/entitlements.d/{}", name),
                fmt::format(R"(<plist version="1.0"><dict>
<key>match</key><dict><key>user</key><integer>{}</integer></dict>
<key>entitlements</key><dict><key>com.halcyon.private.corvidd</key><{}/></dict></dict></plist>)",
                            user, entitled));
  }
  // A client that the daemon has accepted.
  RawClient connected(uid_t user = getuid()) {
    const std::size_t before = timesLogged(accepting);
    RawClient client = connectAs(user);
    EXPECT_TRUE(waitUntil([&] { return timesLogged(accepting) == before + 1; }));
    return client;
  }

 private:
  // Connects as another user, whom the kernel vouches for.
  RawClient connectAs(uid_t user) const {
    // This thread's identity only.
    EXPECT_EQ(syscall(SYS_setresuid, -1, user, -1), 0);
    RawClient client(socketPath());
    EXPECT_EQ(syscall(SYS_setresuid, -1, getuid(), -1), 0);
    return client;
  }
};

TEST_F(EntitlementChanges, ADenialClosesOpenConnections) {
  RawClient client = connected();
  write("zz-deny.plist", getuid(), false);
  EXPECT_TRUE(client.awaitClosed());
  EXPECT_TRUE(waitUntil([&] { return timesLogged(tookBack) == 1; }));
  _root.remove("etc/corvid/entitlements.d/zz-deny.plist");
  TestClient again(_root.path());
  EXPECT_EQ(again.configure({}).text(), "httpPost");
}

TEST_F(EntitlementChanges, AFileThatIsRemovedOrDamagedClosesOpenConnections) {
  write("20-more.plist", getuid(), true);
  _root.remove("etc/corvid/entitlements.d/lab.plist");
  RawClient first = connected();
  _root.remove("etc/corvid/entitlements.d/20-more.plist");
  EXPECT_TRUE(first.awaitClosed());

  write("20-more.plist", getuid(), true);
  RawClient second = connected();
  _root.write("etc/corvid/entitlements.d/zz-deny.plist", "<plist><dict><key>match");
  EXPECT_TRUE(second.awaitClosed());
  EXPECT_TRUE(waitUntil([&] { return timesLogged(tookBack) == 2; }));
}

TEST_F(EntitlementChanges, AFolderThatIsReplacedClosesOpenConnections) {
  RawClient client = connected();
  const std::string folder = _root.path("etc/corvid/entitlements.d");
  fs::rename(folder, folder + ".old");
  fs::create_directory(folder);
  EXPECT_TRUE(client.awaitClosed());
}

TEST_F(EntitlementChanges, LeaveOtherUsersConnected) {
  if (getuid() != 0) GTEST_SKIP() << "takes root, to become another user";
  chmod(_root.path().c_str(), 0755);
  write("20-stranger.plist", strangerUser, true);
  WireClient client(socketPath());
  EXPECT_EQ(sendEvent(client, 1, 1), "none");
  RawClient other = connected(strangerUser);
  write("zz-deny.plist", strangerUser, false);
  EXPECT_TRUE(other.awaitClosed());
  EXPECT_TRUE(waitUntil([&] { return timesLogged(tookBack) == 1; }));
  EXPECT_EQ(sendEvent(client, 1, 1), "none");
}

}  // namespace
}  // namespace corvid
