// Sessions that have a dashboard: their log data, their events, and what is left of them.
#include <fmt/format.h>

#include <fstream>
#include <list>
#include <optional>
#include <sstream>
#include <string>

#include "base/Reading.h"
#include "tests/e2e/LabFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

constexpr int dashboardClient = 17;  // its storebag "reel" has a dashboard and httpPost

class Dashboard : public LabFixture {
 protected:
  // "accepted", "refused", or how else the call ended.
  static std::string upload(TestClient& client, const client::Array& logData) {
    TestClient::Outcome outcome;
    const auto called = client.session().uploadLogData(
        logData,
        [outcome](client::Status status, bool success, std::optional<client::Error> error) {
          if (!status || error) return outcome.set(error ? error->description : status.text());
          outcome.set(success ? "accepted" : "refused");
        },
        [outcome](corvid_outcome_t) { outcome.set("unanswered"); });
    if (!called) outcome.set(called.text());
    return outcome.text();
  }
  // A storebag like the lab's own, with another dashboard section.
  void publishDashboard(const Dictionary& section) const {
    Dictionary storebag = storebagPostingTo(urlOf("realtime"), admitsEverybody());
    Dictionary release = *dictionaryAt(storebag, "release");
    release.set("dashboard", section);
    storebag.set("release", release);
    publish("reel", storebag);
  }
  // Sockets that are connected to the lab's dashboard. Columns: number, own address, peer's.
  std::size_t dashboardSockets() {
    const std::string peer = fmt::format("0100007F:{:04X}", _lab.dashboard().port());
    std::ifstream table(fmt::format("/proc/{}/net/udp", _daemon->pid()));
    std::size_t count = 0;
    for (std::string line; std::getline(table, line);) {
      std::istringstream columns(line);
      std::string number, own, connectedTo;
      columns >> number >> own >> connectedTo;
      count += connectedTo == peer ? 1 : 0;
    }
    return count;
  }
};

TEST_F(Dashboard, LogDataOfAClientArrivesWhole) {
  startDaemon();
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.clientType = dashboardClient}).text(), "dashboard,httpPost");
  client::Array logData;
  (void)logData.append("größer = \\ \n");
  (void)logData.append(2.5);
  (void)logData.append(true);
  (void)logData.append(client::Date{5});
  (void)logData.append(std::string_view(std::string(200'000, 'x')));
  EXPECT_EQ(upload(client, logData), "accepted");
  const auto& entries = received();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(*stringAt(entries[0], "server"), "logData");
  EXPECT_EQ(*stringAt(*dictionaryAt(entries[0], "headers"), "Content-Type"),
            "application/octet-stream");
  EXPECT_EQ(*entries[0].find("logData"),
            Value(Array{"größer = \\ \n", 2.5, true, Dictionary{{"$date", 5.0}},
                        std::string(200'000, 'x')}));
  EXPECT_TRUE(
      _daemon->waitForLog("DashboardBackend(uploadLogData): Log data uploaded to lab/log-data/1"));
  EXPECT_TRUE(_daemon->waitForLog("uploadLogData: Log data array upload successful"));
}

TEST_F(Dashboard, LogDataThatDoesNotArriveIsRefusedAndTheNextIsTried) {
  startDaemon();
  plan("logData", {{"cutHeadAfter", 5}});
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.clientType = dashboardClient}).text(), "dashboard,httpPost");
  EXPECT_EQ(upload(client, {}), "refused");
  EXPECT_TRUE(
      _daemon->waitForLog("DashboardBackend(uploadLogData): Error uploading log data array ("));
  EXPECT_TRUE(_daemon->waitForLog("uploadLogData: Log data array upload failed"));
  EXPECT_EQ(upload(client, {}), "accepted");
}

TEST_F(Dashboard, LogDataNeedsAnAddress) {
  publishDashboard({{"ip", "127.0.0.1"}, {"port", _lab.dashboard().port()}});
  startDaemon();
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.clientType = dashboardClient}).text(), "dashboard,httpPost");
  EXPECT_EQ(upload(client, {}), "refused");
  EXPECT_TRUE(
      _daemon->waitForLog("DashboardBackend(uploadLogData): Post URL for log data array is nil"));
  // The start message of the session may be there.
  for (const Dictionary& entry : received()) EXPECT_EQ(*stringAt(entry, "server"), "realtime");
}

TEST_F(Dashboard, ASessionDoesWithoutADashboardThatCannotBeMade) {
  publishDashboard({{"ip", Array{"127.0.0.1"}}, {"port", 1}});
  startDaemon();
  TestClient client(_root.path());
  EXPECT_EQ(client.configure({.clientType = dashboardClient}).text(), "httpPost");
  EXPECT_TRUE(_daemon->waitForLog("DashboardBackend(initWithName): can't resolve server IP"));
  EXPECT_EQ(upload(client, {}), "refused");
  EXPECT_EQ(client.send("event").text(), "none");
  EXPECT_TRUE(waitUntil([&] { return arrivals("event") == 1; }));
}

TEST_F(Dashboard, EventsOfClientsAreNotForIt) {
  publishDashboard(
      {{"ip", "127.0.0.1"}, {"port", _lab.dashboard().port()}, {"post_url", urlOf("logData")}});
  startDaemon();
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.clientType = dashboardClient}).text(), "dashboard,httpPost");
  EXPECT_EQ(client.send("event").text(), "none");
  EXPECT_EQ(upload(client, {}), "accepted");
  EXPECT_TRUE(waitUntil([&] { return arrivals("event") == 1; }));
  EXPECT_EQ(_lab.dashboard().packetsReceived(), 0u);
}

TEST_F(Dashboard, TenSessionsHaveASocketEachAndLeaveNone) {
  startDaemon({"--idle-exit", "1"});
  {
    std::list<TestClient> clients;
    for (int i = 0; i < 10; ++i) {
      clients.emplace_back(_root.path());
      ASSERT_EQ(clients.back().configure({.clientType = dashboardClient}).text(),
                "dashboard,httpPost");
    }
    EXPECT_EQ(dashboardSockets(), 10u);
    clients.pop_front();
    EXPECT_TRUE(waitUntil([&] { return dashboardSockets() == 9; }));
    EXPECT_EQ(upload(clients.front(), {}), "accepted") << "the others go on";
  }
  EXPECT_TRUE(waitUntil([&] { return dashboardSockets() == 0; }));
  EXPECT_EQ(_daemon->waitForExit(), 0) << "nothing of them keeps the daemon";
}

TEST_F(Dashboard, ABackendOfASingleMessageGoesWithIt) {
  startDaemon();
  TestClient client(_root.path());
  EXPECT_EQ(client.single(TestClient::sessionInfo({.clientType = dashboardClient}), {}).text(),
            "finished");
  EXPECT_TRUE(waitUntil([&] { return dashboardSockets() == 0; }));
  EXPECT_EQ(timesLogged("[error]") + timesLogged("DashboardBackend"), 0u);
}

}  // namespace
}  // namespace corvid
