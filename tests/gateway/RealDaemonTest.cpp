// From the real client library through the real daemon, nginx, a gateway, the log and a loader into
// a table.
#include <filesystem>

#include "base/Reading.h"
#include "gateway/loader/Database.h"
#include "tests/e2e/LabFixture.h"
#include "tests/gateway/engines/ScratchFleet.h"
#include "tests/gateway/log/ClusterFixture.h"
#include "tests/support/ToolProcess.h"

namespace corvid::fleet {
namespace {

constexpr int uploadClient = 16;  // its storebag is "folio"

class RealDaemonTest : public LabFixture {
 protected:
  RealDaemonTest()
      : _fleet({.logURL = ClusterTest::sharedCluster()->url(), .gateways = 1}, _identity) {
    _fleet.awaitReady();
    Dictionary entries = batchesForEverybody();
    entries.set("realtime_post_url", _fleet.nginx().url("/v1/realtime"));
    Dictionary storebag = storebagPostingTo(_fleet.nginx().url("/v1/events"), entries);
    Dictionary release = *dictionaryAt(storebag, "release");
    release.set("uploadServer", Dictionary{{"post_url", _fleet.nginx().url("/v1/uploads")}});
    storebag.set("release", release);
    publish("folio", storebag);
    startDaemon();
  }
  void TearDown() override {
    LabFixture::TearDown();
    EXPECT_TRUE(_fleet.stop());
  }

  // The fields of each row, joined by "|", one row a line.
  std::string ask(const std::string& question) {
    std::string text;
    for (const auto& row : Database(_fleet.postgres().target()).run(question)) {
      for (const auto& field : row) text += field.value_or("none") + "|";
      text += "\n";
    }
    return text;
  }
  bool awaitEvents(std::size_t count) {
    return waitUntil(
        [&] { return ask("SELECT count(*) FROM corvid.event") == std::to_string(count) + "|\n"; });
  }

  const lab::TLSIdentity _identity{_root.path("lab/tls")};  // which the daemon trusts
  ScratchFleet _fleet;
};

TEST_F(RealDaemonTest, ItsEventsBecomeRowsOnceUnderTheirTypes) {
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.clientType = uploadClient, .batches = true}).text(),
            "httpPost,uploadServer");
  for (const char* const mark : {"first", "second"}) ASSERT_EQ(client.send(mark).text(), "none");
  ASSERT_EQ(client.flush().text(), "flushed");
  constexpr int atOnce = 1;
  ASSERT_EQ(client.send("third", atOnce, 8).text(), "none");
  // The start message comes first.
  ASSERT_TRUE(awaitEvents(4)) << ask("SELECT payload FROM corvid.event") << _daemon->standardError()
                              << _fleet.gateway(0).metrics();

  EXPECT_EQ(ask("SELECT payload->>'mark', method, status, event_number, version, sender "
                "FROM corvid.event WHERE method > 0 ORDER BY event_number"),
            "first|7|2|2|3|ZTUVWXY|\nsecond|7|2|3|3|ZTUVWXY|\nthird|8|2|4|3|ZTUVWXY|\n");
  EXPECT_EQ(ask("SELECT count(DISTINCT client_id), count(DISTINCT session), "
                "count(DISTINCT build), count(*) FILTER (WHERE day = received::date), "
                "count(*) FILTER (WHERE abs(extract(epoch FROM received - event_time)) < 120) "
                "FROM corvid.event"),
            "1|1|1|4|4|\n");
  EXPECT_EQ(ask("SELECT count(*) FROM corvid.rejected"), "0|\n");
}

TEST_F(RealDaemonTest, ItsEventsArriveBesideThoseOfAThousandOtherDevices) {
  ToolProcess others(CORVID_FLEET_PROGRAM, {_fleet.nginx().url("/v1/events"),
                                            "--ca-file",
                                            _fleet.nginx().caFile(),
                                            "--devices",
                                            "1000",
                                            "--rate",
                                            "250",
                                            "--events",
                                            "5",
                                            "--seconds",
                                            "4",
                                            "--wrong",
                                            "5",
                                            "--dropped",
                                            "5",
                                            "--again",
                                            "5",
                                            "--slow",
                                            "2",
                                            "--database",
                                            _fleet.postgres().target()});
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.clientType = uploadClient, .batches = true}).text(),
            "httpPost,uploadServer");
  constexpr int count = 200;
  for (int i = 0; i < count; ++i) {
    ASSERT_EQ(client.send("beside").text(), "none");
    if (i % 20 == 19) {
      ASSERT_EQ(client.flush().text(), "flushed");
    }
  }
  EXPECT_EQ(others.finish(), 0) << others.output() << others.errors();
  EXPECT_THAT(others.output(),
              ::testing::HasSubstr(" 0 lost, 0 twice, 0 of refused posts; 0 messages set apart"));
  const auto stored = [&] {
    return ask(
        "SELECT count(*), count(DISTINCT event_number) FROM corvid.event "
        "WHERE payload->>'mark' = 'beside'");
  };
  EXPECT_TRUE(waitUntil([&] { return stored() == "200|200|\n"; })) << stored();
}

TEST_F(RealDaemonTest, ItsFilesAreStoredAndThenRemoved) {
  TestClient client(_root.path(), std::chrono::seconds(60));
  ASSERT_EQ(client.configure({.clientType = uploadClient}).text(), "httpPost,uploadServer");
  const std::string file = _root.write("files/call log.txt", "12:00 call begins\n");
  EXPECT_EQ(client.upload(file).text(), "accepted");
  EXPECT_FALSE(std::filesystem::exists(file)) << _daemon->standardError();
  std::size_t stored = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(_fleet.uploads()))
    stored += entry.path().string().ends_with(".json") &&
              contentOf(entry.path()).find("\"filename\":\"call log.txt.gz\"") != std::string::npos;
  EXPECT_EQ(stored, 1u);
}

}  // namespace
}  // namespace corvid::fleet
