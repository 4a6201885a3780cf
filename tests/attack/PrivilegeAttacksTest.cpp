// Rights that somebody else could make use of: those of set-user-ID programs that use the client
// library, those of whoever serves its socket, and those that a daemon is started with.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <corvid/corvid.hpp>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/UnixAddress.h"
#include "tests/attack/AttackFixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

namespace fs = std::filesystem;

// ---- Of programs that use the client library

class LibraryAttacks : public AttackFixture {
 protected:
  // Runs the program as the attacker, who says where the daemon is; the library's code.
  int reach(mode_t mode, uid_t owner) const {
    const std::string program = _root.path("reach_daemon");
    fs::copy_file(CORVID_REACH_PROGRAM, program, fs::copy_options::overwrite_existing);
    EXPECT_EQ(chown(program.c_str(), owner, owner), 0);
    EXPECT_EQ(chmod(program.c_str(), mode), 0);
    ChildProcess process(ChildProcess::Program{
        .command = {program}, .environment = {"CORVID_ROOT=" + _root.path()}, .prepare = [] {
          if (setresuid(attacker, attacker, attacker) != 0) _exit(126);
          prctl(PR_SET_PDEATHSIG, SIGKILL);
        }});
    return process.waitForExit().value_or(-1);
  }
};

TEST_F(LibraryAttacks, AProgramFollowsTheEnvironmentOfItsOwnUser) {
  EXPECT_EQ(reach(0755, secondAttacker), CORVID_OK);
}

TEST_F(LibraryAttacks, ASetUserIDProgramDoesNotFollowTheEnvironmentOfWhoeverStartsIt) {
  constexpr const char* accepting = "listener: Accepting new IPC connection";
  const std::size_t before = timesLogged(accepting);
  EXPECT_NE(reach(04755, secondAttacker), CORVID_OK);
  EXPECT_EQ(timesLogged(accepting), before) << "it did not come here";
}

// A server in the daemon's place.
class FalseDaemon : public AttackFixture {
 protected:
  // The socket's file is this user's, and `server` listens.
  int connectWhere(uid_t server) const {
    const std::string folder = _root.path("false");
    fs::create_directories(folder + "/run/corvidd");
    const std::string path = folder + "/run/corvidd/com.halcyon.corvidd";
    fs::remove(path);
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(UnixAddress(path).bind(socket.get()), 0);
    {
      const AsUser as(server);
      EXPECT_EQ(listen(socket.get(), 5), 0);
    }
    client::Session::Options options;
    options.root = folder;
    return client::Session(options).connect().code();
  }
};

TEST_F(FalseDaemon, IsRefusedWhereAnotherUserThanTheSocketsOwnerServes) {
  EXPECT_EQ(connectWhere(attacker), CORVID_ERROR_NOT_CONNECTED);
  EXPECT_EQ(connectWhere(getuid()), CORVID_OK);
}

// ---- Of the daemon

// Started with all the rights that there are.
class MightyDaemon : public AttackFixture {
 protected:
  void launch() override {
    _daemon.emplace(_root, std::vector<std::string>{"--log", "stderr", "--log-level", "debug"},
                    std::nullopt, [] {});
    ASSERT_TRUE(_daemon->waitUntilReady()) << _daemon->standardError();
  }
};

TEST_F(MightyDaemon, HasNoCapabilityOnAnyThreadAndCanGetNone) {
  std::size_t threads = 0;
  for (const auto& thread : fs::directory_iterator(fmt::format("/proc/{}/task", _daemon->pid()))) {
    ++threads;
    std::ifstream status(thread.path() / "status");
    std::size_t masks = 0;
    for (std::string line; std::getline(status, line);) {
      if (!line.starts_with("Cap")) continue;
      ++masks;
      EXPECT_EQ(line.find_first_not_of('0', line.find('\t') + 1), std::string::npos) << line;
    }
    EXPECT_EQ(masks, 5u) << "inheritable, permitted, effective, bounding and ambient";
  }
  EXPECT_GE(threads, 3u);
}

TEST_F(MightyDaemon, CannotReadWhatItsUserMayNot) {
  const std::string key = _root.path("usr/share/corvid/publicKey.der");
  TestClient before(_root.path());
  EXPECT_EQ(before.configure({.clientType = attackersType}).text(), "httpPost");
  ASSERT_EQ(chown(key.c_str(), secondAttacker, secondAttacker), 0);
  ASSERT_EQ(chmod(key.c_str(), 0600), 0);
  TestClient after(_root.path());
  EXPECT_EQ(after.configure({.clientType = 16}).text(), "none") << "its storebag is not verified";
}

}  // namespace
}  // namespace corvid
