#include <gtest/gtest.h>

#include "tools/Arguments.h"
#include "tools/lab/conform/Collector.h"

namespace corvid::lab::conform {
namespace {

TEST(CollectorTest, IsTakenFromAURLWithTheUsualPathsBelowIt) {
  const Collector collector = collectorAt("https://posts.example/fleet/", {}, "ca.pem");
  EXPECT_EQ(collector.host, "posts.example");
  EXPECT_EQ(collector.port, "443");
  EXPECT_EQ(collector.authority, "posts.example:443");
  EXPECT_TRUE(collector.isTLS);
  EXPECT_EQ(collector.caFile, "ca.pem");
  EXPECT_EQ(collector.events, "/fleet/v1/events");
  EXPECT_EQ(collector.realtime, "/fleet/v1/realtime");
  EXPECT_EQ(collector.uploads, "/fleet/v1/uploads");
  EXPECT_EQ(collector.logs, "/fleet/v1/logs");
}

TEST(CollectorTest, MayBeAnAddressWithAPort) {
  const Collector collector = collectorAt("http://[::1]:8470");
  EXPECT_EQ(collector.host, "::1");
  EXPECT_EQ(collector.port, "8470");
  EXPECT_EQ(collector.authority, "[::1]:8470");
  EXPECT_FALSE(collector.isTLS);
  EXPECT_EQ(collector.events, "/v1/events");
  EXPECT_EQ(collectorAt("http://192.0.2.1").port, "80");
}

TEST(CollectorTest, OffersWhatIsNamedOnly) {
  const Collector collector = collectorAt("http://localhost:1", "events=/in?key=1,logs=/logData");
  EXPECT_EQ(collector.events, "/in?key=1");
  EXPECT_EQ(collector.logs, "/logData");
  EXPECT_FALSE(collector.realtime);
  EXPECT_FALSE(collector.uploads);
}

TEST(CollectorTest, WhatIsNoCollectorIsNamed) {
  for (const char* const url : {"", "localhost:1", "ftp://localhost", "http://", "http://a b",
                                "http://localhost?x", "http://localhost/#x"})
    EXPECT_THROW(collectorAt(url), tools::InputError) << url;
  for (const char* const paths : {"events", "events=in", "posts=/in", "events=/in,", "events=/a b",
                                  "events=/in#x", "realtime=/now"})
    EXPECT_THROW(collectorAt("http://localhost", paths), tools::InputError) << paths;
}

}  // namespace
}  // namespace corvid::lab::conform
