// What an application of the client library learns of a real daemon: wishes that outlive its
// absence, reasons with answers, and states that change.
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/client/Host.h"
#include "tests/e2e/LabFixture.h"
#include "tests/e2e/Operator.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

class ClientReasonsE2E : public LabFixture {
 protected:
  void SetUp() override {
    publish("lumen", storebagPostingTo(urlOf("events")));
    root = _root.path();
    host.options.root = root.c_str();
    ASSERT_EQ(host.open(), CORVID_OK);
  }
  void TearDown() override {
    host.close();
    LabFixture::TearDown();
  }
  // Also what no callback is called for.
  bool awaitLine(const std::string& beginning) {
    return waitUntil([&] {
      for (const std::string& line : host.lines())
        if (line.starts_with(beginning)) return true;
      return false;
    });
  }
  void haveTheServerDisableReporting() {
    startDaemon();
    ASSERT_EQ(host.describe(), CORVID_OK);
    ASSERT_EQ(host.start(), CORVID_OK);
    ASSERT_TRUE(host.await("finished 0"));
    plan("events", {{"times", 1}, {"status", 503}});
    ASSERT_EQ(host.send(), CORVID_OK);
    ASSERT_TRUE(host.await("states httpPost disabled disabledByServer / 0"));
  }

  std::string root;
  Host host;
};

const std::string reports = "httpPost sending reporting / 1";

TEST_F(ClientReasonsE2E, AnApplicationThatComesBeforeTheDaemonReports) {
  EXPECT_EQ(host.describe(), CORVID_ERROR_NOT_CONNECTED);
  EXPECT_EQ(host.start(), CORVID_ERROR_NOT_CONNECTED);
  EXPECT_EQ(host.send(), CORVID_ERROR_NOT_CONNECTED);
  startDaemon();
  EXPECT_EQ(host.send(7), CORVID_OK);
  ASSERT_TRUE(host.await("finished 0"));
  EXPECT_EQ(host.count("taken none"), 1u);
  EXPECT_TRUE(awaitLine("connected"));
  EXPECT_TRUE(awaitLine("states " + reports));
  // Its start message and its one event; the refused one was not remembered.
  EXPECT_TRUE(waitUntil([&] { return records().size() == 2; }));
}

TEST_F(ClientReasonsE2E, AMessageBeforeDescriptionOrConfigurationIsToldApart) {
  startDaemon();
  ASSERT_EQ(host.send(), CORVID_OK);
  ASSERT_EQ(host.describe(), CORVID_OK);
  ASSERT_EQ(host.send(), CORVID_OK);
  ASSERT_EQ(host.start(), CORVID_OK);
  ASSERT_EQ(host.send(), CORVID_OK);
  ASSERT_TRUE(host.await("finished 0", 4));
  EXPECT_EQ(host.lines(), (std::vector<std::string>{"connected", "dropped noSessionInfo none",
                                                    "finished 0", "dropped notConfigured none",
                                                    "finished 0", "configured " + reports + " / 1",
                                                    "finished 0", "taken none", "finished 0"}));
}

TEST_F(ClientReasonsE2E, AnUnknownClientTypeIsNamed) {
  startDaemon();
  ASSERT_EQ(host.describe(99), CORVID_OK);
  ASSERT_EQ(host.start(), CORVID_OK);
  ASSERT_EQ(host.send(), CORVID_OK);
  ASSERT_TRUE(host.await("finished 0", 2));
  EXPECT_EQ(host.count("configured unknownClientType / none / none"), 1u);
  EXPECT_EQ(host.count("dropped unknownClientType none"), 1u);
}

TEST_F(ClientReasonsE2E, AStorebagThatCannotBeUsedIsNamed) {
  plan("storebags", {{"times", -1}, {"status", 500}});
  startDaemon();
  ASSERT_EQ(host.describe(), CORVID_OK);
  ASSERT_EQ(host.start(), CORVID_OK);
  ASSERT_EQ(host.send(), CORVID_OK);
  ASSERT_TRUE(host.await("finished 0", 2));
  EXPECT_EQ(host.lines(), (std::vector<std::string>{
                              "connected", "configured storebagMalformed / none / none",
                              "finished 0", "dropped storebagMalformed none", "finished 0"}));
}

TEST_F(ClientReasonsE2E, AServerThatFailsChangesTheStatesAndTheApplicationHearsOfIt) {
  ASSERT_NO_FATAL_FAILURE(haveTheServerDisableReporting());
  ASSERT_EQ(host.send(), CORVID_OK);
  EXPECT_TRUE(host.await("dropped disabledByServer none"));
  EXPECT_EQ(host.count("states httpPost disabled disabledByServer / 0"), 1u);
}

TEST_F(ClientReasonsE2E, StatesThatAnOperatorHasComputedAnewAreTold) {
  ASSERT_NO_FATAL_FAILURE(haveTheServerDisableReporting());
  ASSERT_EQ(Operator(root).ctl({"refresh", "--states"}).status, 0);
  EXPECT_TRUE(host.await("states " + reports));
}

}  // namespace
}  // namespace corvid
