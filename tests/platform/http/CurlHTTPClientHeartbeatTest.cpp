// The client's loop answers who watches it.
#include <future>

#include "tests/platform/http/HTTPClientFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

class HTTPClientHeartbeat : public HTTPClientFixture, public testing::Test {
 protected:
  HTTPClientHeartbeat() : HTTPClientFixture(false) {
    serve([](const lab::Request& request) {
      return lab::Answer{.silent = request.target == "/silent"};
    });
  }
  bool answers(std::chrono::milliseconds limit = patience) {
    return waitUntil([&] { return client->heartbeat().hasAnswered(); }, limit);
  }
};

TEST_F(HTTPClientHeartbeat, WithoutAThreadItHasAnswered) {
  client->heartbeat().ask();
  EXPECT_TRUE(client->heartbeat().hasAnswered());
}

TEST_F(HTTPClientHeartbeat, ItAnswersIdleAndWhileAServerIsSilent) {
  ASSERT_EQ(codeOf(get()), 0);
  for (int i = 0; i < 3; ++i) {
    client->heartbeat().ask();
    EXPECT_TRUE(answers());
  }
  Outcomes silent;
  client->start(get("/silent"), silent.completion());
  ASSERT_TRUE(waitUntil([&] { return server->requestsReceived() == 2; }));
  for (int i = 0; i < 100; ++i) {
    client->heartbeat().ask();
    ASSERT_TRUE(answers()) << i;
  }
  EXPECT_TRUE(silent.all().empty());
  client.reset();
}

TEST_F(HTTPClientHeartbeat, ItDoesNotAnswerWhileItIsHeldUp) {
  std::promise<void> begun, mayGoOn;
  client->start(get(), [&](HTTPOutcome) {
    begun.set_value();
    mayGoOn.get_future().wait();
  });
  ASSERT_EQ(begun.get_future().wait_for(patience), std::future_status::ready);
  client->heartbeat().ask();
  EXPECT_FALSE(answers(50ms));
  mayGoOn.set_value();
  EXPECT_TRUE(answers());
}

TEST_F(HTTPClientHeartbeat, AQuestionKeepsNoConnectionOpen) {
  ASSERT_EQ(codeOf(get()), 0);
  ASSERT_TRUE(clock->awaitSleeper(90s));
  EXPECT_EQ(server->connectionsOpen(), 1u);
  clock->advance(60s);
  client->heartbeat().ask();
  ASSERT_TRUE(answers());
  clock->advance(30s);
  EXPECT_TRUE(waitUntil([&] { return server->connectionsOpen() == 0; }));
}

}  // namespace
}  // namespace corvid
