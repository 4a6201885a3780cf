// Each fault that a person can ask for, over a real connection.
#include <chrono>

#include "tests/tools/lab/LabFixture.h"

namespace corvid::lab {
namespace {

using namespace std::chrono_literals;

class FaultPlanTest : public LabFixture {
 protected:
  // What the lab says to a plan.
  Got plan(const std::string& json) { return control.post(address("control"), json); }
  void planned(const std::string& json) {
    const Got got = plan(json);
    EXPECT_EQ(got.status, 200) << got.body;
    EXPECT_EQ(got.body, "planned\n");
  }
  Got post(const std::string& server = "events") {
    return peer.post(address(server), R"({"events":[]})");
  }
  Got bag() { return peer.get(bagURL("lumen")); }

  Peer control{""};
};

TEST_F(FaultPlanTest, WithoutAPlanAllIsWell) {
  EXPECT_EQ(post().status, 200);
  EXPECT_EQ(bag().status, 200);
}

TEST_F(FaultPlanTest, AStatusComesInsteadOfTheRightOneOnceUnlessToldOtherwise) {
  planned(R"({"server":"events","status":503})");
  const Got got = post();
  EXPECT_EQ(got.status, 503);
  EXPECT_EQ(got.body, "");
  EXPECT_EQ(post().status, 200);
  EXPECT_EQ(received().size(), 2u);  // what a fault answers was received all the same
}

TEST_F(FaultPlanTest, AFaultLastsAsOftenAsTold) {
  planned(R"({"server":"storebags","status":500,"times":2})");
  EXPECT_EQ(bag().status, 500);
  EXPECT_EQ(bag().status, 500);
  EXPECT_EQ(bag().status, 200);
}

TEST_F(FaultPlanTest, AFaultCanLastUntilToldOtherwise) {
  planned(R"({"server":"events","status":404,"times":-1})");
  for (int i = 0; i < 5; ++i) EXPECT_EQ(post().status, 404);
  planned(R"({"server":"events","times":0})");
  EXPECT_EQ(post().status, 200);
}

TEST_F(FaultPlanTest, TellsWhatIsStillPlanned) {
  EXPECT_EQ(lab.faults().plans(), Dictionary());
  planned(R"({"server":"events","status":503,"times":2})");
  planned(R"({"server":"realtime","delay":0,"times":-1})");
  post();
  EXPECT_EQ(
      lab.faults().plans(),
      (Dictionary{{"events", Dictionary{{"server", "events"}, {"status", 503}, {"times", 1}}},
                  {"realtime", Dictionary{{"server", "realtime"}, {"delay", 0}, {"times", -1}}}}));
  post();
  planned(R"({"server":"realtime","times":0})");
  EXPECT_EQ(lab.faults().plans(), Dictionary());
}

TEST_F(FaultPlanTest, EachServerHasItsOwnFault) {
  planned(R"({"server":"realtime","status":500,"times":-1})");
  EXPECT_EQ(post("events").status, 200);
  EXPECT_EQ(bag().status, 200);
  EXPECT_EQ(post("realtime").status, 500);
}

TEST_F(FaultPlanTest, ALaterPlanReplacesAnEarlierOne) {
  planned(R"({"server":"events","status":500,"times":5})");
  planned(R"({"server":"events","status":501})");
  EXPECT_EQ(post().status, 501);
  EXPECT_EQ(post().status, 200);
}

TEST_F(FaultPlanTest, AnAnswerCanBeDelayed) {
  planned(R"({"server":"events","delay":0.15})");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(post().status, 200);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 150ms);
}

TEST_F(FaultPlanTest, AnAnswerCanBeARedirect) {
  planned(R"({"server":"storebags","redirect":"https://localhost:1/x"})");
  const Got got = bag();
  EXPECT_EQ(got.status, 302);
  EXPECT_NE(got.head.find("Location: https://localhost:1/x\r\n"), std::string::npos);
}

TEST_F(FaultPlanTest, TheConnectionCanBreakInTheBody) {
  planned(R"({"server":"storebags","cutBodyAfter":10})");
  const Got got = bag();
  EXPECT_NE(got.code, CURLE_OK);
  EXPECT_EQ(got.body.size(), 10u);
  EXPECT_EQ(bag().status, 200);
}

TEST_F(FaultPlanTest, TheConnectionCanBreakInTheHead) {
  planned(R"({"server":"storebags","cutHeadAfter":9})");
  const Got got = bag();
  EXPECT_NE(got.code, CURLE_OK);
  EXPECT_EQ(got.body, "");
  EXPECT_EQ(bag().status, 200);
}

TEST_F(FaultPlanTest, ABodyCanHaveNoEnd) {
  planned(R"({"server":"storebags","endless":true})");
  EXPECT_EQ(bag().code, CURLE_WRITE_ERROR);
  EXPECT_EQ(bag().status, 200);
}

TEST_F(FaultPlanTest, AServerCanBeSilent) {
  planned(R"({"server":"events","silent":true})");
  peer.timeout = 200ms;
  EXPECT_EQ(post().code, CURLE_OPERATION_TIMEDOUT);
  peer.timeout = 20s;
  EXPECT_EQ(post().status, 200);
}

TEST_F(FaultPlanTest, ABodyCanBeCorrupt) {
  const std::string right = bag().body;
  planned(R"({"server":"storebags","corrupt":true})");
  const std::string wrong = bag().body;
  ASSERT_EQ(wrong.size(), right.size());
  int different = 0;
  for (std::size_t i = 0; i < right.size(); ++i) different += right[i] != wrong[i];
  EXPECT_EQ(different, 1);
  EXPECT_EQ(bag().body, right);
}

TEST_F(FaultPlanTest, ABodyCanLackItsSecondHalfAndClaimToBeWhole) {
  const std::string right = bag().body;
  planned(R"({"server":"storebags","truncate":true})");
  const Got got = bag();
  EXPECT_EQ(got.code, CURLE_OK);
  EXPECT_EQ(got.body, right.substr(0, right.size() / 2));
}

TEST_F(FaultPlanTest, FaultsCombine) {
  planned(R"({"server":"events","status":500,"delay":0.1})");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(post().status, 500);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 100ms);
}

TEST_F(FaultPlanTest, PlansComeByPOSTToTheControlAddressOnly) {
  EXPECT_EQ(control.get(address("control")).status, 404);
  const std::string whole = address("control");
  EXPECT_EQ(control.post(whole.substr(0, whole.rfind('/')) + "/other", "{}").status, 404);
}

TEST_F(FaultPlanTest, APlanThatIsNoJSONObjectIsRefused) {
  for (const char* json : {"", "nonsense", "[]", "5"}) {
    const Got got = plan(json);
    EXPECT_EQ(got.status, 400) << json;
    EXPECT_EQ(got.body, "the body is no JSON object\n") << json;
  }
}

TEST_F(FaultPlanTest, ARedirectCanHaveAnotherStatus) {
  planned(R"({"server":"events","redirect":"/x","status":307})");
  EXPECT_EQ(post().status, 307);
}

TEST_F(FaultPlanTest, APlanThatCannotBeMeantIsRefusedAndSaysWhy) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"status":500})", R"("server" must be a text)"},
      {R"({"server":5})", R"("server" must be a text)"},
      {R"({"server":"event"})",
       R"(there is no server "event"; there are events, logData, realtime, storebags, upload)"},
      {R"({"server":"events","stauts":500})",
       R"(there is no fault "stauts"; there are server, times, status, delay, redirect, )"
       "cutBodyAfter, cutHeadAfter, endless, silent, corrupt, truncate, body"},
      {R"({"server":"events","status":"500"})",
       R"("status" must be a whole number from 200 to 599)"},
      {R"({"server":"events","status":99})", R"("status" must be a whole number from 200 to 599)"},
      {R"({"server":"events","times":-2})",
       R"("times" must be a whole number from -1 to 1000000000)"},
      {R"({"server":"events","times":1.5})",
       R"("times" must be a whole number from -1 to 1000000000)"},
      {R"({"server":"events","delay":"1"})",
       R"("delay" must be a number of seconds from 0 to 3600)"},
      {R"({"server":"events","delay":-1})",
       R"("delay" must be a number of seconds from 0 to 3600)"},
      {R"({"server":"events","delay":1e300})",
       R"("delay" must be a number of seconds from 0 to 3600)"},
      {R"({"server":"events","redirect":true})", R"("redirect" must be a text)"},
      {R"({"server":"events","cutBodyAfter":-1})",
       R"("cutBodyAfter" must be a whole number from 0 to 1000000000)"},
      {R"({"server":"events","cutHeadAfter":"0"})",
       R"("cutHeadAfter" must be a whole number from 0 to 1000000000)"},
      {R"({"server":"events","silent":1})", R"("silent" must be true or false)"}};
  for (const auto& [json, reason] : cases) {
    const Got got = plan(json);
    EXPECT_EQ(got.status, 400) << json;
    EXPECT_EQ(got.body, std::string(reason) + "\n") << json;
  }
  EXPECT_EQ(post().status, 200);
}

}  // namespace
}  // namespace corvid::lab
