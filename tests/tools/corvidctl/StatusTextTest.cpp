#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/data/JSON.h"
#include "tests/support/ToolProcess.h"
#include "tools/corvidctl/StatusText.h"

namespace corvid::ctl {
namespace {

using testing::HasSubstr;
using testing::Not;

Dictionary objectIn(const char* json) { return *parseJSON(json).value().dictionary(); }
Array arrayIn(const char* json) { return *parseJSON(json).value().array(); }

constexpr const char* status = R"({"version":"1.0.0","pid":7,"uptimeSeconds":190,
  "sandbox":"enforced","logLevel":"info","sessions":2,
  "device":{"country":{"value":null,"source":null},"consent":{"value":true,"source":"preference"}},
  "storebags":[{"name":"tessel","url":"https://a/tessel","state":"stale","version":"1.2",
    "keyID":"00","ageSeconds":90061.0,"expiresInSeconds":0.0,"nextAttemptInSeconds":700.0,
    "lastError":"storebagUnreachable: the server is away"}],
  "ledger":{"accepted":9,"delivered":4,"refused":{"404":1},"failed":{"connect":1},
    "dropped":{"noConsent":2},"held":1,"underWay":0},
  "hosts":[{"host":"localhost:8443","underWay":0,"waiting":0,"delivered":4,"failed":1,
    "lastSuccessSecondsAgo":2.0,"lastFailure":{"secondsAgo":9.0,"what":"refused"}}],
  "connections":{"refused":{"notEntitled":3,"tooManyConnections":0}}})";

constexpr const char* sessions = R"([
  {"session":2,"parent":1,"clientName":"Child","clientType":5,"pid":9,"uid":0,"reason":null,
   "backends":[{"name":"httpPost","state":"disabled","reason":"parentLacksBackend","held":0,
                "ledger":{"accepted":3,"delivered":1,"refused":{"404":2},"failed":{}}}]},
  {"session":1,"parent":null,"clientName":"Parent","clientType":5,"pid":8,"uid":0,
   "reason":"storebagUnreachable","backends":[]}])";

TEST(StatusText, SaysWhatIsThereWithAgesAndReasons) {
  const std::string text = statusText(objectIn(status), {});
  EXPECT_THAT(text, HasSubstr("corvidd 1.0.0"));
  EXPECT_THAT(text, HasSubstr("up 3 min"));
  EXPECT_THAT(text, HasSubstr("consent  yes"));
  EXPECT_THAT(text, HasSubstr("25 h"));
  EXPECT_THAT(text, HasSubstr("the server is away (next attempt in 12 min)"));
  EXPECT_THAT(text, HasSubstr("noConsent  The user has not allowed"));
  EXPECT_THAT(text, HasSubstr("9 s ago: refused"));
  EXPECT_THAT(text, HasSubstr("3  notEntitled"));
  EXPECT_THAT(text, Not(HasSubstr("tooManyConnections"))) << "nothing happened";
}

TEST(StatusText, IsNeverWiderThanTheScreen) {
  for (const std::size_t width : {40u, 80u, 132u}) {
    const Screen screen{.width = width};
    for (const std::string& text :
         {statusText(objectIn(status), screen), sessionsText(arrayIn(sessions), screen),
          topText(objectIn(status), arrayIn(sessions), {}, 1, screen)})
      for (const std::string& line : linesOf(text)) EXPECT_LE(columnsOf(line), width) << line;
  }
}

TEST(StatusText, HasColoursOnlyWhereTheScreenHas) {
  EXPECT_THAT(statusText(objectIn(status), {}), Not(HasSubstr("\x1b")));
  EXPECT_THAT(statusText(objectIn(status), {.hasColours = true}), HasSubstr("\x1b[31m"));
}

TEST(StatusText, SessionsStandBelowTheirParents) {
  const auto lines = linesOf(sessionsText(arrayIn(sessions), {}));
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_THAT(lines[0], testing::StartsWith("session 1  Parent"));
  EXPECT_THAT(lines[1], HasSubstr("storebagUnreachable"));
  EXPECT_THAT(lines[2], testing::StartsWith("  session 2  Child"));
  EXPECT_THAT(lines[3], HasSubstr("parentLacksBackend"));
  EXPECT_EQ(sessionsText({}, {}), "no sessions\n");
}

TEST(StatusText, ADecisionIsOneLineAndOneForEachBackend) {
  const auto event = linesOf(decisionText(
      objectIn(R"({"event":7,"time":0,"session":1,"category":7,"type":2,"flag":0,"backends":[
        {"name":"httpPost","outcome":"held","reason":"reporting","removed":["secret"],
         "digested":["account"],"post":null}]})"),
      {}));
  ASSERT_EQ(event.size(), 2u);
  EXPECT_THAT(event[0], HasSubstr("event 7  session 1  category 7, type 2, flag 0"));
  EXPECT_THAT(event[1], HasSubstr("httpPost  held  reporting"));
  EXPECT_THAT(event[1], HasSubstr("removed: secret; digested: account"));
  const auto post = linesOf(decisionText(
      objectIn(R"({"post":3,"time":0,"session":1,"backend":"httpPost","events":50,"bytes":2411,
        "status":200,"milliseconds":4.12,"error":null})"),
      {}));
  ASSERT_EQ(post.size(), 1u);
  EXPECT_THAT(post[0], HasSubstr("50 events, 2.4 kB  status 200  4.1 ms"));
  EXPECT_EQ(decisionText(objectIn(R"({"lost":4})"), {}), "4 lines were lost here\n");
}

TEST(StatusText, TheBusiestSessionsAreOnTop) {
  const Array before = arrayIn(R"([{"session":1,"backends":[{"ledger":{"accepted":10}}]},
                                   {"session":2,"backends":[{"ledger":{"accepted":10}}]}])");
  const Array now = arrayIn(
      R"([{"session":1,"clientName":"slow","backends":[{"ledger":{"accepted":12}}]},
          {"session":2,"clientName":"fast","backends":[{"ledger":{"accepted":30}}]}])");
  const auto lines = linesOf(topText(objectIn(status), now, before, 2, {}));
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_THAT(lines[3], HasSubstr("10.0"));
  EXPECT_THAT(lines[3], HasSubstr("fast"));
  EXPECT_THAT(lines[4], HasSubstr("1.0"));
}

TEST(StatusText, WhatLacksOrIsOfAnotherTypeIsLeftOut) {
  const Dictionary odd{
      {"storebags", Array{1, "x"}}, {"hosts", "none"}, {"ledger", 4}, {"device", 1}};
  EXPECT_THAT(statusText(odd, {}), HasSubstr("Events"));
  EXPECT_EQ(sessionsText({1, 2}, {}), "");
}

TEST(Table, CutsTheLastColumnFirstAndNeverInACharacter) {
  Table table;
  table.add({"name", "what stands here is long äöü"});
  EXPECT_EQ(table.text({.width = 12}), "name  what …\n");
  EXPECT_EQ(cut("äöü", 2), "ä…");
  EXPECT_EQ(cut("äöü", 3), "äöü");
}

TEST(Table, AgesAndSizesHaveTheirUnits) {
  EXPECT_EQ(age(12), "12 s");
  EXPECT_EQ(age(180), "3 min");
  EXPECT_EQ(age(5 * 3600), "5 h");
  EXPECT_EQ(age(3 * 86400), "3 d");
  EXPECT_EQ(size(812), "812 B");
  EXPECT_EQ(size(4100), "4.1 kB");
  EXPECT_EQ(size(16e6), "16.0 MB");
}

}  // namespace
}  // namespace corvid::ctl
