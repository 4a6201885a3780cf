// Clients that want a thread where the system has none left.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <iterator>
#include <string>

#include "tests/attack/AttackFixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

namespace fs = std::filesystem;

constexpr int dashboardClient = 17;

// No limit of threads holds for the superuser, so the daemon is a user of its own, as it is where
// it is installed.
class ThreadAttacks : public AttackFixture {
 protected:
  static constexpr uid_t daemonsUser = 65532;

  void SetUp() override {
    AttackFixture::SetUp();
    Dictionary storebag = storebagPostingTo(urlOf("events"));
    const Dictionary dashboard{{"ip", "127.0.0.1"}, {"port", _lab.dashboard().port()}};
    storebag.set("release", Dictionary{{"dashboard", dashboard}});
    publish("reel", storebag);
  }
  void launch() override {
    for (const fs::path folder : {_root.path("var/lib/corvidd"), _root.path("run/corvidd")}) {
      ASSERT_EQ(chown(folder.c_str(), daemonsUser, daemonsUser), 0);
      for (const auto& entry : fs::recursive_directory_iterator(folder))
        ASSERT_EQ(chown(entry.path().c_str(), daemonsUser, daemonsUser), 0);
    }
    const std::string notify = DaemonProcess::notifySocket(_root);
    _daemon.emplace(_root, std::vector<std::string>{"--log", "stderr", "--log-level", "debug"},
                    std::nullopt, [&notify] {
                      chmod(notify.c_str(), 0777);
                      if (setresgid(daemonsUser, daemonsUser, daemonsUser) != 0 ||
                          setresuid(daemonsUser, daemonsUser, daemonsUser) != 0)
                        _exit(126);
                      prctl(PR_SET_PDEATHSIG, SIGKILL);  // another user's does not count
                    });
    ASSERT_TRUE(_daemon->waitUntilReady()) << _daemon->standardError();
  }

  std::size_t threads() const {
    const fs::directory_iterator all(fmt::format("/proc/{}/task", _daemon->pid())), end;
    return static_cast<std::size_t>(std::distance(all, end));
  }
  // So many more than there are. Only who is the same user may say so.
  void allowThreads(std::size_t more) const {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NPROC, &limit), 0);  // which the daemon was started with
    limit.rlim_cur = threads() + more;
    EXPECT_EQ(inChild([&] {
                return setresgid(daemonsUser, daemonsUser, daemonsUser) == 0 &&
                               setresuid(daemonsUser, daemonsUser, daemonsUser) == 0 &&
                               prlimit(_daemon->pid(), RLIMIT_NPROC, &limit, nullptr) == 0
                           ? 0
                           : 1;
              }),
              0);
  }
  bool awaitThreads(std::size_t count) const {
    return waitUntil([&] { return threads() <= count; });
  }
};

TEST_F(ThreadAttacks, WhereTheNetworkFindsNoneADashboardIsAnErrorLineAndTheDaemonGoesOn) {
  const std::size_t before = threads();
  constexpr std::size_t rounds = 10;
  for (std::size_t round = 1; round <= rounds; ++round) {
    ASSERT_TRUE(awaitThreads(before));
    allowThreads(1);  // for the client's connection
    RawClient client = connect();
    ASSERT_TRUE(client.write(bootstrap(0) + describe(dashboardClient)));
    EXPECT_TRUE(awaitAnswer(client, 2)) << round;
    EXPECT_EQ(timesLogged("DashboardBackend(initWithName): can't create timer source."), round);
  }
  ASSERT_TRUE(awaitThreads(before));
  EXPECT_TRUE(bystanderReports());
  allowThreads(100);
  TestClient later(_root.path());
  EXPECT_EQ(later.configure({.clientType = dashboardClient}).text(), "dashboard");
}

TEST_F(ThreadAttacks, WhereAConnectionFindsNoneItIsClosedAndTheOthersGoOn) {
  const std::size_t before = threads();
  allowThreads(0);
  for (int i = 0; i < 100; ++i) {
    RawClient client = connect();
    client.write(bootstrap(0));
    ASSERT_TRUE(client.awaitClosed());
  }
  EXPECT_GT(timesLogged("IPCConnection: No thread for "), 0u);
  EXPECT_LE(threads(), before);
  EXPECT_TRUE(bystanderReports());
  allowThreads(100);
  TestClient later(_root.path());
  EXPECT_EQ(later.configure({.clientType = attackersType}).text(), "httpPost");
}

}  // namespace
}  // namespace corvid
