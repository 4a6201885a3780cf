// The real program from its command line to its exit status.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/Descriptor.h"
#include "base/UnixAddress.h"
#include "tests/e2e/DaemonProcess.h"
#include "tests/support/Scratch.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

constexpr std::string_view socketFile = "run/corvidd/com.halcyon.corvidd";
constexpr std::string_view profileFile = "usr/share/corvid/sandbox/com.halcyon.corvidd.plist";
constexpr std::string_view listening = "main: Listener resumes with sandbox, start loop.";

// A listening socket at the path.
Descriptor listenAt(const std::string& path) {
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  EXPECT_EQ(UnixAddress(path).bind(socket.get()), 0);
  EXPECT_EQ(listen(socket.get(), 16), 0);
  return socket;
}

// Empty when nobody listens.
Descriptor clientAt(const std::string& path) {
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (UnixAddress(path).connect(socket.get()) != 0) return Descriptor();
  const timeval limit{patience.count(), 0};
  setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  return socket;
}

// Whether the other side closes without a word.
bool isClosed(const Descriptor& socket) {
  char byte;
  return recv(socket.get(), &byte, 1, 0) == 0;
}

class DaemonProcessTest : public testing::Test {
 protected:
  // Starts the daemon with its log, debug lines included, on standard error.
  static std::vector<std::string> logging(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.end(), {"--log", "stderr", "--log-level", "debug"});
    return arguments;
  }
  std::string socketPath() const { return root.path(socketFile); }

  ScratchRoot root;
};

TEST_F(DaemonProcessTest, ListensInItsSandboxAndReportsReadiness) {
  DaemonProcess daemon(root, {"--log", "stderr"});
  ASSERT_TRUE(daemon.waitUntilReady()) << daemon.standardError();
  EXPECT_TRUE(daemon.waitForLog(listening));
  EXPECT_TRUE(clientAt(socketPath()));
}

TEST_F(DaemonProcessTest, TellsOfItsStartAtInfoAndNothingElse) {
  DaemonProcess daemon(root, {"--log", "stderr"});
  ASSERT_TRUE(daemon.waitUntilReady()) << daemon.standardError();
  ASSERT_TRUE(daemon.waitForLog(listening));
  const std::string log = daemon.standardError();
  EXPECT_NE(log.find(fmt::format(" info corvidd[{}]: {}\n", daemon.pid(), listening)),
            std::string::npos)
      << log;
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
}

TEST_F(DaemonProcessTest, ItsMainThreadDoesUtilityWork) {
  DaemonProcess daemon(root, logging());
  ASSERT_TRUE(daemon.waitUntilReady()) << daemon.standardError();
  EXPECT_GE(getpriority(PRIO_PROCESS, static_cast<id_t>(daemon.pid())), 5);
}

TEST_F(DaemonProcessTest, LetsEverybodyTryTheSocket) {
  DaemonProcess daemon(root, logging());
  ASSERT_TRUE(daemon.waitUntilReady()) << daemon.standardError();
  struct stat status {};
  ASSERT_EQ(stat(socketPath().c_str(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 07777u, 0666u);
}

TEST_F(DaemonProcessTest, RefusesAClientWithoutTheEntitlement) {
  DaemonProcess daemon(root, logging());
  ASSERT_TRUE(daemon.waitUntilReady()) << daemon.standardError();
  const Descriptor client = clientAt(socketPath());
  ASSERT_TRUE(client);
  EXPECT_TRUE(isClosed(client));
  EXPECT_TRUE(
      daemon.waitForLog("does not have required corvid entitlement. Closing connection..."));
}

TEST_F(DaemonProcessTest, AcceptsAClientWithTheEntitlementAndFollowsItsEnd) {
  root.entitleThisUser();
  DaemonProcess daemon(root, logging());
  ASSERT_TRUE(daemon.waitUntilReady()) << daemon.standardError();
  {
    const Descriptor client = clientAt(socketPath());
    ASSERT_TRUE(client);
    EXPECT_TRUE(daemon.waitForLog("as it has proper entitlement, 0(0) connections."));
  }
  EXPECT_TRUE(daemon.waitForLog("was invalidated"));
  EXPECT_TRUE(daemon.waitForLog("dealloc: CorviddSession dealloc: 0"));
}

TEST_F(DaemonProcessTest, ReadsEntitlementsAtEachConnection) {
  // A folder that is missing when the sandbox is entered stays out of reach.
  root.write("etc/corvid/entitlements.d/README", "");
  DaemonProcess daemon(root, logging());
  ASSERT_TRUE(daemon.waitUntilReady()) << daemon.standardError();
  EXPECT_TRUE(isClosed(clientAt(socketPath())));
  root.entitleThisUser();
  const Descriptor client = clientAt(socketPath());
  EXPECT_TRUE(daemon.waitForLog("as it has proper entitlement"));
}

TEST_F(DaemonProcessTest, ServesASocketThatItWasStartedWith) {
  root.entitleThisUser();
  const std::string path = root.path("activation");
  const Descriptor listener = listenAt(path);
  const Descriptor client = clientAt(path);
  DaemonProcess daemon(root, logging(), listener.get());
  ASSERT_TRUE(daemon.waitUntilReady()) << daemon.standardError();
  EXPECT_TRUE(daemon.waitForLog("as it has proper entitlement, 0(0) connections."));
  EXPECT_NE(access(socketPath().c_str(), F_OK), 0);
}

TEST_F(DaemonProcessTest, EndsWhenIdle) {
  DaemonProcess daemon(root, logging({"--idle-exit", "1"}));
  ASSERT_TRUE(daemon.waitUntilReady()) << daemon.standardError();
  EXPECT_EQ(daemon.waitForExit(), 0) << daemon.standardError();
  EXPECT_FALSE(clientAt(socketPath()));
}

TEST_F(DaemonProcessTest, AClientKeepsTheIdleProcessAlive) {
  root.entitleThisUser();
  DaemonProcess daemon(root, logging({"--idle-exit", "1"}));
  ASSERT_TRUE(daemon.waitUntilReady()) << daemon.standardError();
  {
    const Descriptor client = clientAt(socketPath());
    ASSERT_TRUE(daemon.waitForLog("as it has proper entitlement"));
    EXPECT_EQ(daemon.waitForExit(std::chrono::milliseconds(1300)), std::nullopt);
  }
  EXPECT_EQ(daemon.waitForExit(), 0) << daemon.standardError();
}

// Failures to start

TEST_F(DaemonProcessTest, AMissingProfileEndsTheStart) {
  root.remove(profileFile);
  DaemonProcess daemon(root, logging());
  EXPECT_FALSE(daemon.waitUntilReady());
  EXPECT_EQ(daemon.waitForExit(), 255);
  EXPECT_TRUE(daemon.waitForLog("main: sandbox_init() fails: "));
  EXPECT_NE(access(socketPath().c_str(), F_OK), 0);
}

TEST_F(DaemonProcessTest, AnUnusableProfileEndsTheStart) {
  root.write(profileFile, "no property list");
  DaemonProcess daemon(root, logging());
  EXPECT_EQ(daemon.waitForExit(), 255);
  EXPECT_TRUE(daemon.waitForLog("main: sandbox_init() fails: "));
}

TEST_F(DaemonProcessTest, WithoutASandboxItWarnsAndRuns) {
  root.remove(profileFile);
  DaemonProcess daemon(root, logging({"--sandbox", "off"}));
  ASSERT_TRUE(daemon.waitUntilReady()) << daemon.standardError();
  EXPECT_TRUE(clientAt(socketPath()));
  EXPECT_EQ(daemon.timesLogged(" warning corvidd["), 1u) << daemon.standardError();
  EXPECT_EQ(
      daemon.timesLogged(": main: The sandbox is off: corvidd may do whatever its user may\n"), 1u);
}

TEST_F(DaemonProcessTest, ASecondDaemonLeavesTheFirstAlone) {
  DaemonProcess first(root, logging());
  ASSERT_TRUE(first.waitUntilReady()) << first.standardError();
  DaemonProcess second(root, logging());
  EXPECT_EQ(second.waitForExit(), 1);
  EXPECT_EQ(second.timesLogged(" error corvidd["), 1u);
  EXPECT_EQ(second.timesLogged(": main: Cannot listen for clients: "), 1u);
  EXPECT_TRUE(clientAt(socketPath()));
}

TEST_F(DaemonProcessTest, AStaleSocketIsReplaced) {
  root.write("run/corvidd/.keep", "");
  listenAt(socketPath());  // closed at once, the file stays
  DaemonProcess daemon(root, logging());
  ASSERT_TRUE(daemon.waitUntilReady()) << daemon.standardError();
  EXPECT_TRUE(clientAt(socketPath()));
}

TEST_F(DaemonProcessTest, AFileInTheSocketsPlaceIsNotTouched) {
  root.write(socketFile, "precious");
  DaemonProcess daemon(root, logging());
  EXPECT_EQ(daemon.waitForExit(), 1);
  EXPECT_EQ(daemon.timesLogged(" error corvidd["), 1u);
  EXPECT_EQ(daemon.timesLogged(": main: Cannot listen for clients: "), 1u);
  struct stat status {};
  ASSERT_EQ(stat(socketPath().c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
}

// Other uses of the command line

TEST_F(DaemonProcessTest, AnUnknownOptionIsAUsageError) {
  DaemonProcess daemon(root, {"--nonsense"});
  EXPECT_EQ(daemon.waitForExit(), 64);
  EXPECT_EQ(daemon.standardError(),
            "corvidd: unknown option --nonsense (corvidd --help says more)\n");
  EXPECT_EQ(daemon.standardOutput(), "");
}

TEST_F(DaemonProcessTest, AMissingArgumentIsAUsageError) {
  DaemonProcess daemon(root, {"--log"});
  EXPECT_EQ(daemon.waitForExit(), 64);
  EXPECT_EQ(daemon.standardError(), "corvidd: --log lacks its value (corvidd --help says more)\n");
}

TEST_F(DaemonProcessTest, PrintsItsVersion) {
  DaemonProcess daemon(root, {"--version"});
  EXPECT_EQ(daemon.waitForExit(), 0);
  EXPECT_EQ(daemon.standardOutput(), "corvidd " CORVID_VERSION "\n");
}

TEST_F(DaemonProcessTest, PrintsItsOptions) {
  DaemonProcess daemon(root, {"--help"});
  EXPECT_EQ(daemon.waitForExit(), 0);
  EXPECT_EQ(daemon.standardOutput().substr(0, 14), "usage: corvidd");
}

TEST_F(DaemonProcessTest, CheckConfigReportsWhatIsWrong) {
  DaemonProcess daemon(root, {"--check-config"});
  EXPECT_EQ(daemon.waitForExit(), 1);
  EXPECT_NE(daemon.standardOutput().find("WRONG " + root.path("usr/share/corvid/publicKey.der")),
            std::string::npos)
      << daemon.standardOutput();
  EXPECT_NE(access(root.path("var").c_str(), F_OK), 0);
}

}  // namespace
}  // namespace corvid
