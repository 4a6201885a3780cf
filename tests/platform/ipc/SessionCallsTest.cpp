// Every operation from the socket to the session and back.
#include <gtest/gtest.h>

#include <string>

#include "tests/platform/ipc/ServiceFixture.h"
#include "tests/platform/ipc/WireClient.h"

namespace corvid {
namespace {

using SessionCalls = ServiceFixture;

TEST_F(SessionCalls, AnEventReachesTheSessionAndItsTextComesBack) {
  start();
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 7, 9, Dictionary{{"key", "value"}}), "sent 7");
  const auto calls = delegate->at(0).session->calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].category, 7);
  EXPECT_EQ(calls[0].type, 9);
  EXPECT_EQ(calls[0].payload, (Dictionary{{"key", "value"}}));
}

}  // namespace
}  // namespace corvid
