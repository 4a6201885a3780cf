// Every operation of the client library against a real listener.
#include <gtest/gtest.h>

#include "tests/client/SessionFixture.h"

namespace corvid {
namespace {

using client::Session;
using client::Status;

using SessionCalls = SessionFixture;

TEST_F(SessionCalls, AnEventIsAnsweredWithTheTextOfTheSession) {
  start();
  Session session(options());
  client::Dictionary payload;
  ASSERT_TRUE(payload.set("key", "value"));
  std::optional<std::string> answer;
  ASSERT_TRUE(
      session.sendMessage(7, 9, payload, [&](Status status, std::optional<std::string> text) {
        EXPECT_TRUE(status);
        note([&] { answer = text; });
      }));
  ASSERT_TRUE(await([&] { return answer.has_value(); }));
  EXPECT_EQ(answer, "sent 7");
}

}  // namespace
}  // namespace corvid
