#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "tests/support/Scratch.h"
#include "tools/corvidctl/SystemManager.h"

namespace corvid::ctl {
namespace {

// A system manager that says what the test wants.
class SystemManager : public testing::Test {
 protected:
  SystemManager() { setenv("PATH", folder.path().c_str(), 1); }
  ~SystemManager() override { setenv("PATH", before.c_str(), 1); }
  void says(const std::string& socket, const std::string& service) {
    const std::string script =
        folder.write("systemctl",
                     "#!/bin/sh\n[ \"$*\" = \"is-active corvidd.socket corvidd.service\" ] "
                     "&& echo " +
                         socket + " && echo " + service + "\nexit 3\n");
    chmod(script.c_str(), 0755);
  }

  const std::string before = std::getenv("PATH");
  const ScratchFolder folder;
};

TEST_F(SystemManager, WouldStartADaemonThatDoesNotRunWhereItHoldsTheSockets) {
  says("active", "inactive");
  EXPECT_TRUE(connectionWouldStartDaemon());
  says("active", "failed");
  EXPECT_TRUE(connectionWouldStartDaemon());
}

TEST_F(SystemManager, StartsNothingWhereTheDaemonRunsOrTheSocketsAreNotItsOwn) {
  for (const char* const service : {"active", "activating", "deactivating", "reloading"}) {
    says("active", service);
    EXPECT_FALSE(connectionWouldStartDaemon()) << service;
  }
  says("inactive", "inactive");
  EXPECT_FALSE(connectionWouldStartDaemon());
}

TEST_F(SystemManager, IsNotThereOnEveryMachine) { EXPECT_FALSE(connectionWouldStartDaemon()); }

}  // namespace
}  // namespace corvid::ctl
