// Waiting, limits and the end.
#include <curl/curl.h>

#include <atomic>
#include <semaphore>

#include "tests/platform/http/HTTPClientFixture.h"

namespace corvid {
namespace {

class HTTPClientQueueTest : public HTTPClientTest {
 protected:
  ~HTTPClientQueueTest() override { client.reset(); }

  // Starts exchanges that get no answer until every connection to the host is in use.
  void occupyConnections() {
    for (std::size_t i = 0; i < CurlHTTPClient::kConnectionsPerHost; ++i)
      client->start(get("/silent"), silent.completion());
    while (server->requestsReceived() < CurlHTTPClient::kConnectionsPerHost)
      std::this_thread::yield();
  }
  void serveSilence() {
    serve([](const lab::Request& request) {
      return request.target == "/silent" ? lab::Answer{.silent = true} : lab::Answer{};
    });
  }

  Outcomes silent;
  Outcomes outcomes;
};

INSTANTIATE_TEST_SUITE_P(Transport, HTTPClientQueueTest, testing::Bool(), transportName);

TEST_P(HTTPClientQueueTest, OneThatFindsTheQueueFullFailsAtOnce) {
  serveSilence();
  occupyConnections();
  for (std::size_t i = 0; i < CurlHTTPClient::kWaitingExchanges; ++i)
    client->start(post("waits"), outcomes.completion());
  EXPECT_EQ(outcomes.all().size(), 0u);
  EXPECT_EQ(client->exchangesRefused(), 0u);

  HTTPOutcome refused;
  client->start(post("too much"), [&](HTTPOutcome outcome) { refused = std::move(outcome); });
  ASSERT_TRUE(refused.error) << "completed before start returned";
  EXPECT_EQ(refused.error->code, CURLE_AGAIN);
  EXPECT_EQ(client->exchangesRefused(), 1u);
  EXPECT_EQ(client->exchangesUnderWay(),
            CurlHTTPClient::kConnectionsPerHost + CurlHTTPClient::kWaitingExchanges);
}

TEST_P(HTTPClientQueueTest, ManyBytesFillTheQueueToo) {
  serveSilence();
  occupyConnections();
  client->start(post(std::string(CurlHTTPClient::kWaitingBytes + 1, 'b')), outcomes.completion());
  EXPECT_EQ(client->exchangesRefused(), 0u);
  EXPECT_EQ(codeOf(post("x")), CURLE_AGAIN);
  EXPECT_EQ(client->exchangesRefused(), 1u);
}

TEST_P(HTTPClientQueueTest, AHostThatDoesNotAnswerHoldsUpNoOther) {
  serveSilence();
  occupyConnections();
  client->start(get("/silent"), silent.completion());
  lab::HTTPServer::Options options;
  if (GetParam()) options.tls = identity->server();
  lab::HTTPServer other([](const lab::Request&) { return lab::Answer{}; }, options);
  EXPECT_EQ(codeOf({.url = other.url("/")}), 0);
}

TEST_P(HTTPClientQueueTest, TheTimeOutCountsWhileAnExchangeWaits) {
  serveSilence();
  occupyConnections();
  HTTPRequest request = get();
  request.timeout = 50ms;
  EXPECT_EQ(codeOf(request), CURLE_OPERATION_TIMEDOUT);
  EXPECT_EQ(server->requestsReceived(), CurlHTTPClient::kConnectionsPerHost);
}

TEST_P(HTTPClientQueueTest, WaitingExchangesFollowInTheirOrder) {
  std::mutex mutex;
  std::vector<std::string> bodies;
  std::counting_semaphore<> gate(0);
  serve([&](const lab::Request& request) {
    if (request.target == "/gate") {
      gate.acquire();
    } else {
      std::lock_guard lock(mutex);
      bodies.push_back(request.body);
    }
    return lab::Answer{};
  });
  for (std::size_t i = 0; i < CurlHTTPClient::kConnectionsPerHost; ++i)
    client->start(get("/gate"), outcomes.completion());
  for (int i = 0; i < 20; ++i) client->start(post(std::to_string(i)), outcomes.completion());
  // One connection comes free, so that one exchange follows the other.
  gate.release();
  ASSERT_TRUE(outcomes.waitFor(21));
  gate.release(CurlHTTPClient::kConnectionsPerHost - 1);
  ASSERT_TRUE(outcomes.waitFor(CurlHTTPClient::kConnectionsPerHost + 20));
  ASSERT_EQ(bodies.size(), 20u);
  for (std::size_t i = 0; i < 20; ++i) EXPECT_EQ(bodies[i], std::to_string(i));
}

TEST_P(HTTPClientQueueTest, TheEndCompletesWhatIsUnderWayAndWhatWaits) {
  serveSilence();
  occupyConnections();
  for (int i = 0; i < 100; ++i) client->start(post("waits"), outcomes.completion());
  client.reset();
  const auto active = silent.all();
  const auto waiting = outcomes.all();
  EXPECT_EQ(active.size(), CurlHTTPClient::kConnectionsPerHost);
  EXPECT_EQ(waiting.size(), 100u);
  for (const auto* all : {&active, &waiting})
    for (const auto& outcome : *all) {
      ASSERT_TRUE(outcome.error);
      EXPECT_EQ(outcome.error->code, CURLE_ABORTED_BY_CALLBACK);
    }
}

TEST_P(HTTPClientQueueTest, AnExchangeStartedAtTheEndFailsAtOnce) {
  serveSilence();
  std::atomic<int> code = 0;
  client->start(get("/silent"), [&, ending = client.get()](HTTPOutcome) {
    ending->start(get(), [&](HTTPOutcome outcome) { code = outcome.error->code; });
  });
  while (server->requestsReceived() == 0) std::this_thread::yield();
  client.reset();
  EXPECT_EQ(code, CURLE_ABORTED_BY_CALLBACK);
}

TEST_P(HTTPClientQueueTest, AClientThatNeverStartedAnythingEndsAtOnce) {
  restartClient();
  EXPECT_EQ(client->exchangesUnderWay(), 0u);
  client.reset();
}

}  // namespace
}  // namespace corvid
