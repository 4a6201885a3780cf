#include <fmt/format.h>

#include <regex>
#include <set>

#include "base/Text.h"
#include "gateway/Metrics.h"
#include "tests/gateway/GatewayFixture.h"

namespace corvid::fleet {
namespace {

class MonitorsTest : public GatewayTest {
 protected:
  std::string metrics() { return get(gateway->monitorPort(), "/metrics")->body; }
};

TEST_F(MonitorsTest, HealthIsWhetherTheLogTakesMessages) {
  start();
  for (const std::uint16_t each : {port, gateway->monitorPort()}) {
    log.setReady(true);
    EXPECT_EQ(get(each, "/healthz")->status, 200);
    log.setReady(false);
    EXPECT_EQ(get(each, "/healthz")->status, 503);
  }
}

TEST_F(MonitorsTest, TheMonitorsAddressTakesNoPosts) {
  start();
  EXPECT_EQ(post(gateway->monitorPort(), "/v1/events", onePost)->status, 404);
  EXPECT_EQ(post(gateway->monitorPort(), "/metrics", "")->status, 405);
}

TEST_F(MonitorsTest, MetricsAreTheLedger) {
  start();
  EXPECT_EQ(postEvents(onePost)->status, 200);
  EXPECT_EQ(postEvents("{}")->status, 400);
  EXPECT_EQ(get(port, "/nothing")->status, 404);
  const std::string text = metrics();
  for (const char* const line :
       {"corvid_gateway_received_total{route=\"events\"} 2\n",
        "corvid_gateway_received_total{route=\"none\"} 1\n",
        "corvid_gateway_acknowledged_total{route=\"events\"} 1\n",
        "corvid_gateway_refused_total{reason=\"noEvents\"} 1\n",
        "corvid_gateway_refused_total{reason=\"unknownAddress\"} 1\n",
        "corvid_gateway_failed_total{reason=\"logUnanswered\"} 0\n", "corvid_gateway_held 0\n",
        "corvid_gateway_events_total 1\n", "corvid_gateway_log_ready 1\n"})
    EXPECT_NE(text.find(line), std::string::npos) << line << text;
}

TEST_F(MonitorsTest, WhatIsHeldIsAMetric) {
  log.setMode(FakeLog::Mode::silent);
  start();
  Caller caller(port);
  caller.send(request("/v1/events", onePost));
  ASSERT_TRUE(waitUntil([&] { return log.published() == 1; }));
  const std::string text = metrics();
  EXPECT_NE(text.find("corvid_gateway_held 1\n"), std::string::npos);
  EXPECT_NE(text.find("corvid_gateway_waiting 1\n"), std::string::npos);
  log.setMode(FakeLog::Mode::stores);
  EXPECT_EQ(caller.answer()->status, 200);
}

TEST_F(MonitorsTest, TheFormIsOpenMetrics) {
  start();
  const auto got = get(gateway->monitorPort(), "/metrics");
  EXPECT_EQ(got->headers.at("content-type"), metricsType);
  EXPECT_TRUE(got->body.ends_with("\n# EOF\n"));
  const std::regex meta("# (TYPE [a-z_]+ (counter|gauge)|HELP [a-z_]+ [^\\n]+|EOF)");
  const std::regex sample("[a-z_]+(\\{[a-z]+=\"[A-Za-z0-9]+\"\\})? [0-9]+");
  for (const std::string_view line : split(trimmed(got->body), '\n')) {
    const std::string text(line);
    EXPECT_TRUE(std::regex_match(text, text.starts_with('#') ? meta : sample)) << text;
  }
}

TEST(RulesTest, EachHasAWordAndALineOfItsOwn) {
  std::set<std::string_view> words, lines;
  for (const RuleText& text : ruleTexts()) {
    words.insert(text.word);
    lines.insert(text.text);
    EXPECT_FALSE(text.text.ends_with('.')) << text.text;
  }
  EXPECT_EQ(words.size(), ruleCount);
  EXPECT_EQ(lines.size(), ruleCount);
}

TEST(RulesTest, AClientsFaultIsNever5xx) {
  for (const RuleText& text : ruleTexts()) {
    if (isClientsFault(text.rule) && text.rule != Rule::cutOff) {
      EXPECT_GE(text.status, 400) << text.word;
      EXPECT_LT(text.status, 500) << text.word;
    }
    // The word that has a device remove its file.
    EXPECT_EQ(text.text.find("success"), std::string_view::npos) << text.word;
  }
}

}  // namespace
}  // namespace corvid::fleet
