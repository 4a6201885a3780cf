// The real daemon and a launcher that wants to hear that it lives.
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "base/Reading.h"
#include "tests/e2e/LabFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

// One thread of another process, standing still for as long as this lives.
class StoppedThread {
 public:
  StoppedThread(pid_t process, const std::string& name) : _thread(named(process, name)) {
    if (_thread == 0 || ptrace(PTRACE_SEIZE, _thread, nullptr, nullptr) != 0) return;
    int status = 0;
    _isStopped = ptrace(PTRACE_INTERRUPT, _thread, nullptr, nullptr) == 0 &&
                 waitpid(_thread, &status, __WALL) == _thread && WIFSTOPPED(status);
  }
  ~StoppedThread() {
    if (_isStopped) ptrace(PTRACE_DETACH, _thread, nullptr, nullptr);
  }
  StoppedThread(const StoppedThread&) = delete;
  StoppedThread& operator=(const StoppedThread&) = delete;

  bool isStopped() const { return _isStopped; }

 private:
  static pid_t named(pid_t process, const std::string& name) {
    const std::string tasks = "/proc/" + std::to_string(process) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks))
      if (contentOf(task.path() / "comm") == name + "\n")
        return numberFrom<pid_t>(task.path().filename().string()).value_or(0);
    return 0;
  }

  const pid_t _thread;
  bool _isStopped = false;
};

class Watchdog : public LabFixture {
 protected:
  ~Watchdog() override { unsetenv("WATCHDOG_USEC"); }
  void startWatchedDaemon() {
    setenv("WATCHDOG_USEC", "1000000", 1);
    startDaemon();
  }
  bool isFedAgain(std::chrono::milliseconds limit) {
    const std::size_t before = _daemon->timesFed();
    return waitUntil([&] { return _daemon->timesFed() > before; }, limit);
  }
};

TEST_F(Watchdog, IsFedAtHalfItsInterval) {
  startWatchedDaemon();
  ASSERT_TRUE(isFedAgain(patience));
  const auto start = steady_clock::now();
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(isFedAgain(patience));
  EXPECT_GT(steady_clock::now() - start, 1300ms);
  EXPECT_EQ(timesLogged("does not answer"), 0u);
}

TEST_F(Watchdog, IsNotFedWhereNobodyWantsIt) {
  startDaemon();
  EXPECT_FALSE(isFedAgain(700ms));
}

TEST_F(Watchdog, IsNotFedWhileAnyLoopStandsStill) {
  publish("lumen", storebagPostingTo(urlOf("events")));
  startWatchedDaemon();
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({}).text(), "httpPost");  // by then HTTP has its thread
  for (const auto& [thread, loop] :
       {std::pair("corvid-accept", "accept"), std::pair("corvid-lookers", "control"),
        std::pair("corvid-http", "HTTP"), std::pair("corvid-signals", "signals")}) {
    ASSERT_TRUE(isFedAgain(patience)) << thread;
    {
      const StoppedThread stopped(_daemon->pid(), thread);
      if (!stopped.isStopped() && errno == EPERM) GTEST_SKIP() << "nobody may stop a thread here";
      ASSERT_TRUE(stopped.isStopped()) << thread;
      const std::string line =
          "main: The loop of " + std::string(loop) + " does not answer; the watchdog is not fed\n";
      EXPECT_TRUE(_daemon->waitForLog(line));
      EXPECT_FALSE(isFedAgain(1200ms)) << thread;
      EXPECT_EQ(timesLogged(line), 1u);
    }
    EXPECT_TRUE(isFedAgain(patience)) << thread;
  }
}

TEST_F(Watchdog, ACallThatWaitsForAServerIsNoLoopThatStandsStill) {
  publish("lumen", storebagPostingTo(urlOf("events")));
  plan("storebags", {{"silent", true}, {"times", -1}});
  startWatchedDaemon();
  TestClient client(_root.path(), 5s);
  const auto states = client.configure({});
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(isFedAgain(patience));
  EXPECT_FALSE(states.isThere());
  EXPECT_EQ(timesLogged("does not answer"), 0u);
}

}  // namespace
}  // namespace corvid
