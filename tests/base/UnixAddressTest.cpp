#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "base/Descriptor.h"
#include "base/UnixAddress.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

Descriptor newSocket() { return Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)); }

Descriptor listenAt(const UnixAddress& address) {
  Descriptor listener = newSocket();
  EXPECT_EQ(address.bind(listener.get()), 0);
  EXPECT_EQ(listen(listener.get(), 1), 0);
  return listener;
}

TEST(UnixAddress, APathIsAFile) {
  const ScratchFolder folder;
  const std::string path = folder.path("socket");
  const Descriptor listener = listenAt(UnixAddress(path));
  EXPECT_EQ(access(path.c_str(), F_OK), 0);
  EXPECT_EQ(UnixAddress(path).connect(newSocket().get()), 0);
}

TEST(UnixAddress, AnAbstractNameCountsWithItsLastCharacter) {
  const std::string name = std::string(1, '\0') + "corvid-test-" + std::to_string(getpid());
  const Descriptor listener = listenAt(UnixAddress(name));
  EXPECT_EQ(UnixAddress(name).connect(newSocket().get()), 0);
  EXPECT_EQ(UnixAddress(name + '\0').connect(newSocket().get()), -1);
}

TEST(UnixAddress, APathThatIsTooLongIsNone) {
  EXPECT_TRUE(UnixAddress("/" + std::string(106, 'x')));
  const UnixAddress tooLong("/" + std::string(107, 'x'));
  EXPECT_FALSE(tooLong);
  EXPECT_EQ(tooLong.connect(newSocket().get()), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

}  // namespace
}  // namespace corvid
