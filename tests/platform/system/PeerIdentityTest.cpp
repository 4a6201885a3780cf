#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "base/Descriptor.h"
#include "base/UnixAddress.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/system/PeerIdentity.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

// A listener in a scratch folder and clients in processes of their own.
class PeerIdentityTest : public testing::Test {
 protected:
  PeerIdentityTest() : _listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    EXPECT_EQ(UnixAddress(_path).bind(_listener.get()), 0);
    EXPECT_EQ(listen(_listener.get(), 4), 0);
    EXPECT_EQ(chmod(_path.c_str(), 0666), 0);
    EXPECT_EQ(chmod(scratch.path().c_str(), 0755), 0);
  }

  // The pipe's end tells the client that it may go.
  struct Client {
    ChildProcess process;
    Descriptor keepsAlive;
    Descriptor connection;
    void end() {
      keepsAlive.reset();
      EXPECT_EQ(process.waitForExit(), 0);
    }
  };
  Client connectClient(const std::function<bool()>& prepare = [] { return true; }) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    ChildProcess process([&] {
      close(ends[1]);
      const Descriptor client(socket(AF_UNIX, SOCK_STREAM, 0));
      if (!prepare() || UnixAddress(_path).connect(client.get()) != 0) return 1;
      char byte;
      return read(ends[0], &byte, 1) == 0 ? 0 : 1;
    });
    close(ends[0]);
    return {std::move(process), Descriptor(ends[1]),
            Descriptor(accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC))};
  }

  ScratchFolder scratch;

 private:
  const std::string _path = scratch.path() + "/socket";
  Descriptor _listener;
};

TEST_F(PeerIdentityTest, TellsTheProcessThatConnected) {
  Client client = connectClient();
  const auto peer = peerIdentity(client.connection.get());
  client.end();
  ASSERT_TRUE(peer);
  EXPECT_EQ(peer.value().pid, client.process.pid());
  EXPECT_EQ(peer.value().uid, getuid());
  EXPECT_EQ(peer.value().gid, getgid());
}

TEST_F(PeerIdentityTest, TellsUserAndGroupsAtTheTimeOfTheConnection) {
  if (getuid() != 0) GTEST_SKIP() << "takes root, to become another user";
  std::vector<gid_t> groups(200);
  for (std::size_t i = 0; i < groups.size(); ++i) groups[i] = static_cast<gid_t>(5000 + i);
  Client client = connectClient([&] {
    return setgroups(groups.size(), groups.data()) == 0 && setgid(4711) == 0 && setuid(4712) == 0;
  });
  const auto peer = peerIdentity(client.connection.get());
  client.end();
  ASSERT_TRUE(peer);
  EXPECT_EQ(peer.value().uid, 4712u);
  EXPECT_EQ(peer.value().gid, 4711u);
  EXPECT_EQ(peer.value().groups, groups);
}

TEST_F(PeerIdentityTest, TellsTheUnitOfALivingProcessOnly) {
  const auto groups = readRegularFile("/proc/self/cgroup");
  ASSERT_TRUE(groups);
  const std::string ownUnit = unitOfControlGroups(groups.value());
  Client client = connectClient();
  const auto alive = peerIdentity(client.connection.get());
  client.end();
  const auto ended = peerIdentity(client.connection.get());
  ASSERT_TRUE(alive);
  EXPECT_EQ(alive.value().unit, ownUnit);
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended.value().pid, client.process.pid());
  EXPECT_EQ(ended.value().unit, "");
}

TEST_F(PeerIdentityTest, OfWhatIsNoSocketIsAFailure) {
  const Descriptor file(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const auto peer = peerIdentity(file.get());
  ASSERT_FALSE(peer);
  EXPECT_EQ(peer.failure().code, ENOTSOCK);
}

}  // namespace
}  // namespace corvid
