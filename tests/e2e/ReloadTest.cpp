// Settings that change while the real daemon serves.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "platform/data/PropertyList.h"
#include "tests/e2e/LabFixture.h"
#include "tests/support/ToolProcess.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using testing::HasSubstr;

constexpr const char* deploymentFile = "etc/corvid/deployment.plist";

class ReloadOfDaemon : public LabFixture {
 protected:
  void SetUp() override {
    sound = contentOf(_root.path(deploymentFile));
    publish("lumen", storebagPostingTo(urlOf("events"), batchesForEverybody()));
  }
  // Gives the daemon the file and waits for what it says about it.
  void reloadWith(const std::string& content, const std::string& verdict) {
    _root.write(deploymentFile, content);
    reload();
    EXPECT_TRUE(_daemon->waitForLog(verdict)) << _daemon->standardError();
  }
  void reload() { _daemon->signal(SIGHUP); }
  std::string changed(const std::string& key, Value value) const {
    Dictionary deployment = parseDictionary(sound).value();
    deployment.set(key, std::move(value));
    return writeXMLPropertyList(deployment);
  }
  std::string readAnew() const { return "reload: " + _root.path(deploymentFile) + ": read anew"; }
  Dictionary storebag() const {
    const ToolResult result =
        runTool(CORVIDCTL_PROGRAM, {"--root", _root.path(), "status", "--json"});
    const Dictionary status = *parseJSON(result.output).value().dictionary();
    return *arrayAt(status, "storebags")->at(0).dictionary();
  }

  std::string sound;
};

TEST_F(ReloadOfDaemon, ANewHostIsAskedByTheNextFetchAndPausesAreForgotten) {
  _root.write(deploymentFile, changed("ProductionStorebagHost", "localhost:1"));
  startDaemon();
  TestClient client(_root.path());
  EXPECT_EQ(client.configure({.clientName = "Player"}).text(), "none");
  EXPECT_GT(*asNumber(storebag().find("nextAttemptInSeconds")), 800);
  EXPECT_EQ(client.configure({.clientName = "Player"}).text(), "none") << "a pause follows";

  reloadWith(sound, readAnew());
  ASSERT_TRUE(waitUntil([&] { return *asNumber(storebag().find("nextAttemptInSeconds")) == 0; }));
  EXPECT_EQ(client.configure({.clientName = "Player"}).text(), "httpPost");
}

TEST_F(ReloadOfDaemon, SessionsAndBatchesAreKept) {
  startDaemon();
  TestClient client(_root.path());
  EXPECT_EQ(client.configure({.batches = true, .clientName = "Player"}).text(), "httpPost");
  EXPECT_EQ(client.send("held").text(), "none");
  reloadWith(sound, readAnew());
  EXPECT_EQ(arrivals("held"), 0u);
  EXPECT_EQ(client.flush().text(), "flushed");
  EXPECT_TRUE(waitUntil([&] { return arrivals("held") == 1; }));
  EXPECT_EQ(client.invalidations(), 0);
}

TEST_F(ReloadOfDaemon, AWrongFileLeavesWhatWasInForceAndIsOneErrorLine) {
  startDaemon();
  const std::string behind = "; keeping what was in force";
  reloadWith("no list", behind);
  EXPECT_EQ(timesLogged("reload: " + _root.path(deploymentFile) + ": "), 1u);
  EXPECT_EQ(timesLogged(behind), 1u) << _daemon->standardError();
  TestClient client(_root.path());
  EXPECT_EQ(client.configure({.clientName = "Player"}).text(), "httpPost");
}

TEST_F(ReloadOfDaemon, ACAFileOutsideTheOpenFoldersNeedsARestart) {
  startDaemon();
  const ScratchFolder outside;
  const std::string file = outside.write("ca.pem", contentOf(_root.path("lab/tls/ca.pem")));
  reloadWith(changed("CAFile", file),
             file +
                 " is outside the folders that were open at the start, and needs a restart; "
                 "keeping what was in force");
  TestClient client(_root.path());
  EXPECT_EQ(client.configure({.clientName = "Player"}).text(), "httpPost");
}

TEST_F(ReloadOfDaemon, ACAFileInAnOpenFolderIsTakenAtOnce) {
  startDaemon();
  const std::string file =
      _root.write("etc/corvid/other.pem", contentOf(_root.path("lab/tls/self-signed.pem")));
  reloadWith(changed("CAFile", file), readAnew());
  TestClient client(_root.path());
  EXPECT_EQ(client.configure({.clientName = "Player"}).text(), "none") << "nobody trusts the lab";
  EXPECT_THAT(*stringAt(storebag(), "lastError"), HasSubstr("storebagUnreachable"));
}

TEST_F(ReloadOfDaemon, ManyInARowHarmNothing) {
  startDaemon();
  for (int times = 0; times < 200; ++times) reload();
  _daemon->signal(SIGTERM);
  EXPECT_EQ(_daemon->waitForExit(), 0) << _daemon->standardError();
}

}  // namespace
}  // namespace corvid
