// Waiting, limits and the end.
#include <curl/curl.h>
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <future>
#include <semaphore>
#include <thread>

#include "base/ActingUser.h"
#include "tests/fakes/CapturedLog.h"
#include "tests/platform/http/HTTPClientFixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/NoMoreThreads.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using testing::HasSubstr;

TEST(HTTPClientThread, WhereTheSystemHasNoneTheExchangeFailsAndNothingThrows) {
  const auto work = [] {
    if (!endThreads()) return 2;
    CurlHTTPClient client(std::make_shared<FakeClock>(), {});
    std::optional<HTTPOutcome> outcome;
    HTTPRequest request;
    request.url = "https://localhost/";
    client.start(std::move(request), [&](HTTPOutcome given) { outcome = std::move(given); });
    if (!outcome || !outcome->error) return 3;
    return outcome->error->description.starts_with("localhost: no thread for it: ") ? 0 : 4;
  };
  EXPECT_EQ(inChild(work), 0);
}

class HTTPClientQueueTest : public HTTPClientTest {
 protected:
  ~HTTPClientQueueTest() override { client.reset(); }

  // Starts exchanges that get no answer until every connection to the host is in use.
  void occupyConnections() {
    for (std::size_t i = 0; i < CurlHTTPClient::mostConnectionsPerHost; ++i)
      client->start(get("/silent"), silent.completion());
    EXPECT_TRUE(waitUntil(
        [&] { return server->requestsReceived() >= CurlHTTPClient::mostConnectionsPerHost; }));
  }
  void serveSilence() {
    serve([](const lab::Request& request) {
      return request.target == "/silent" ? lab::Answer{.silent = true} : lab::Answer{};
    });
  }

  // One exchange that is as large as all that may wait for a host.
  void fillTheShare() {
    client->start(post(std::string(bytesOfAHost, 'b')), outcomes.completion());
  }

  static constexpr std::size_t exchangesOfAHost =
      CurlHTTPClient::mostWaitingExchanges / CurlHTTPClient::hostsThatFillTheQueue;
  static constexpr std::size_t bytesOfAHost =
      CurlHTTPClient::mostWaitingBytes / CurlHTTPClient::hostsThatFillTheQueue;

  Outcomes silent;
  Outcomes outcomes;
};

INSTANTIATE_TEST_SUITE_P(Transport, HTTPClientQueueTest, testing::Bool(), transportName);

TEST_P(HTTPClientQueueTest, OneThatFindsTheShareOfItsHostFullFailsAtOnce) {
  serveSilence();
  occupyConnections();
  for (std::size_t i = 0; i < exchangesOfAHost; ++i)
    client->start(post("waits"), outcomes.completion());
  EXPECT_EQ(outcomes.all().size(), 0u);
  EXPECT_EQ(client->exchangesRefused(), 0u);

  HTTPOutcome refused;
  client->start(post("too much"), [&](HTTPOutcome outcome) { refused = std::move(outcome); });
  ASSERT_TRUE(refused.error) << "completed before start returned";
  EXPECT_EQ(refused.error->code, CURLE_AGAIN);
  EXPECT_EQ(client->exchangesRefused(), 1u);
  EXPECT_EQ(client->exchangesUnderWay(), CurlHTTPClient::mostConnectionsPerHost + exchangesOfAHost);
}

TEST_P(HTTPClientQueueTest, ManyBytesFillTheShareOfAHostAndNotTheQueue) {
  serveSilence();
  occupyConnections();
  fillTheShare();
  EXPECT_EQ(client->exchangesRefused(), 0u);
  EXPECT_EQ(codeOf(post("x")), CURLE_AGAIN);
  EXPECT_EQ(client->exchangesRefused(), 1u);
  lab::HTTPServer::Options options;
  if (GetParam()) options.tls = identity->server();
  lab::HTTPServer other([](const lab::Request&) { return lab::Answer{}; }, options);
  EXPECT_EQ(codeOf({.url = other.url("/")}), 0);
}

TEST_P(HTTPClientQueueTest, ThoseWithPatienceWaitForRoom) {
  constexpr std::size_t threads = 3, posts = 3;
  std::counting_semaphore<> gate(0);
  serve([&](const lab::Request& request) {
    if (request.target == "/silent") gate.acquire();
    return lab::Answer{};
  });
  occupyConnections();
  fillTheShare();
  std::vector<std::thread> clients;
  for (std::size_t i = 0; i < threads; ++i)
    clients.emplace_back([&] {
      for (std::size_t n = 0; n < posts; ++n) {
        HTTPRequest patient = post(std::string(bytesOfAHost, 'b'));
        patient.patience = 20s;
        client->start(std::move(patient), outcomes.completion());
      }
    });
  EXPECT_TRUE(clock->awaitSleeper(20s));
  EXPECT_EQ(client->exchangesUnderWay(), CurlHTTPClient::mostConnectionsPerHost + 1);
  gate.release(CurlHTTPClient::mostConnectionsPerHost);
  for (std::thread& thread : clients) thread.join();
  ASSERT_TRUE(outcomes.waitFor(1 + threads * posts));
  for (const HTTPOutcome& outcome : outcomes.all()) EXPECT_TRUE(outcome.response);
  EXPECT_EQ(client->exchangesRefused(), 0u);
}

TEST_P(HTTPClientQueueTest, WithoutRoomInGoodTimeItFailsAndTheLogSaysSoOnce) {
  CapturedLog log;
  std::counting_semaphore<> gate(0);
  serve([&](const lab::Request& request) {
    if (request.target == "/silent") gate.acquire();
    return lab::Answer{};
  });
  occupyConnections();
  fillTheShare();
  HTTPRequest request = post("patient");
  request.patience = 5s;
  for (int i = 0; i < 3; ++i) {
    auto refused = std::async(std::launch::async, [&] { return codeOf(request); });
    EXPECT_TRUE(clock->awaitSleeper(5s));
    EXPECT_EQ(client->exchangesRefused(), static_cast<std::size_t>(i));
    clock->advance(5s);
    EXPECT_EQ(refused.get(), CURLE_AGAIN);
  }
  EXPECT_EQ(client->exchangesRefused(), 3u);
  ASSERT_EQ(log.texts(LogLevel::warning).size(), 1u);
  EXPECT_THAT(log.texts(LogLevel::warning)[0], HasSubstr("too many exchanges wait"));
  gate.release(CurlHTTPClient::mostConnectionsPerHost);
  ASSERT_TRUE(outcomes.waitFor(1));
  EXPECT_EQ(codeOf(request), 0);
  ASSERT_EQ(log.texts(LogLevel::warning).size(), 2u);
  EXPECT_EQ(log.texts(LogLevel::warning)[1],
            "HTTPClient: there is room for exchanges again; 3 have failed");
}

TEST_P(HTTPClientQueueTest, TheWaitForRoomCountsOnlyInATimeoutThatCoversIt) {
  std::counting_semaphore<> gate(0);
  serve([&](const lab::Request& request) {
    if (request.target == "/silent") gate.acquire();
    return lab::Answer{};
  });
  for (const bool covers : {true, false}) {
    const std::size_t received = server->requestsReceived();
    for (std::size_t i = 0; i < CurlHTTPClient::mostConnectionsPerHost; ++i)
      client->start(get("/silent"), silent.completion());
    EXPECT_TRUE(waitUntil([&] {
      return server->requestsReceived() >= received + CurlHTTPClient::mostConnectionsPerHost;
    }));
    fillTheShare();
    HTTPRequest request = get();
    request.timeout = 10s;
    request.patience = 20s;
    request.timeoutCoversWait = covers;
    auto code = std::async(std::launch::async, [&] { return codeOf(request); });
    EXPECT_TRUE(clock->awaitSleeper(20s));
    clock->advance(12s);
    gate.release(CurlHTTPClient::mostConnectionsPerHost);
    EXPECT_EQ(code.get(), covers ? CURLE_OPERATION_TIMEDOUT : CURLE_OK);
  }
}

TEST_P(HTTPClientQueueTest, ACompletionNeverWaitsForRoom) {
  std::counting_semaphore<> gate(0);
  serve([&](const lab::Request& request) {
    if (request.target == "/gate") gate.acquire();
    return lab::Answer{.silent = request.target == "/silent"};
  });
  std::atomic<int> code = 0;
  client->start(get("/gate"), [&](HTTPOutcome) {
    // No exchange leaves the queue before the completion returns.
    fillTheShare();
    HTTPRequest patient = post("patient");
    patient.patience = 20s;
    client->start(patient, [&](HTTPOutcome outcome) { code = outcome.error->code; });
  });
  for (std::size_t i = 1; i < CurlHTTPClient::mostConnectionsPerHost; ++i)
    client->start(get("/silent"), silent.completion());
  EXPECT_TRUE(waitUntil(
      [&] { return server->requestsReceived() >= CurlHTTPClient::mostConnectionsPerHost; }));
  const auto before = std::chrono::steady_clock::now();
  gate.release();
  ASSERT_TRUE(outcomes.waitFor(1));
  EXPECT_EQ(code, CURLE_AGAIN);
  EXPECT_LT(std::chrono::steady_clock::now() - before, 15s);
}

TEST_P(HTTPClientQueueTest, OneUsersExchangesLeaveRoomAndConnectionsForAnothers) {
  serveSilence();
  {
    const ActingFor acting(1001);
    occupyConnections();
    for (std::size_t i = 0; i < exchangesOfAHost; ++i)
      client->start(get("/silent"), silent.completion());
    EXPECT_EQ(codeOf(post("x")), CURLE_AGAIN);
  }
  const ActingFor acting(1000);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(codeOf(post("x")), 0) << i;
}

TEST_P(HTTPClientQueueTest, AUploadThatWaitsTakesNoRoomFromOtherUsers) {
  serveSilence();
  {
    const ActingFor acting(1001);
    occupyConnections();
    client->start(post(std::string(4 * bytesOfAHost, 'b'), "/silent"), silent.completion());
    EXPECT_EQ(codeOf(post("x")), CURLE_AGAIN);
  }
  const ActingFor acting(1000);
  std::vector<HTTPRequest> batches(20, post(std::string(100'000, 'b')));
  for (const HTTPRequest& batch : batches) client->start(batch, outcomes.completion());
  ASSERT_TRUE(outcomes.waitFor(batches.size()));
  for (const HTTPOutcome& outcome : outcomes.all()) EXPECT_TRUE(outcome.response);
}

TEST_P(HTTPClientQueueTest, ACompletionActsForTheUserOfItsRequest) {
  serve(lab::Answer{});
  for (const User user : {User(1000), User(std::nullopt)}) {
    User seen = 7;
    Outcomes ended;
    HTTPRequest request = get();
    request.user = user;
    client->start(request, [&, done = ended.completion()](HTTPOutcome outcome) {
      seen = actingUser();
      done(std::move(outcome));
    });
    ASSERT_TRUE(ended.waitFor(1));
    EXPECT_EQ(seen, user);
  }
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
  request.timeout = 15s;
  client->start(request, outcomes.completion());
  clock->advance(15s - 1ms);
  EXPECT_EQ(client->exchangesUnderWay(), CurlHTTPClient::mostConnectionsPerHost + 1);
  clock->advance(1ms);
  ASSERT_TRUE(outcomes.waitFor(1));
  EXPECT_EQ(outcomes.all()[0].error->code, CURLE_OPERATION_TIMEDOUT);
  EXPECT_EQ(server->requestsReceived(), CurlHTTPClient::mostConnectionsPerHost);
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
  for (std::size_t i = 0; i < CurlHTTPClient::mostConnectionsPerHost; ++i)
    client->start(get("/gate"), outcomes.completion());
  for (int i = 0; i < 20; ++i) client->start(post(std::to_string(i)), outcomes.completion());
  // One connection comes free, so that one exchange follows the other.
  gate.release();
  ASSERT_TRUE(outcomes.waitFor(21));
  gate.release(CurlHTTPClient::mostConnectionsPerHost - 1);
  ASSERT_TRUE(outcomes.waitFor(CurlHTTPClient::mostConnectionsPerHost + 20));
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
  EXPECT_EQ(active.size(), CurlHTTPClient::mostConnectionsPerHost);
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
  EXPECT_TRUE(waitUntil([&] { return server->requestsReceived() > 0; }));
  client.reset();
  EXPECT_EQ(code, CURLE_ABORTED_BY_CALLBACK);
}

TEST_P(HTTPClientQueueTest, AClientThatNeverStartedAnythingEndsAtOnce) {
  restartClient();
  EXPECT_EQ(client->exchangesUnderWay(), 0u);
  const auto before = std::chrono::steady_clock::now();
  client.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - before, 1s);
}

TEST_P(HTTPClientQueueTest, WhatMayNotLeaveWhenItsTurnComesIsNeverSent) {
  serveSilence();
  occupyConnections();
  std::atomic<bool> mayLeave = true;
  HTTPRequest request = get("/withdrawn");
  request.mayLeave = [&] { return mayLeave.load(); };
  client->start(std::move(request), outcomes.completion());
  mayLeave = false;
  const std::size_t received = server->requestsReceived();
  server->stop();  // which ends those that are in the way
  ASSERT_TRUE(outcomes.waitFor(1));
  ASSERT_TRUE(outcomes.all()[0].error);
  EXPECT_THAT(outcomes.all()[0].error->description, HasSubstr("withdrawn before it was sent"));
  EXPECT_EQ(server->requestsReceived(), received);
}

}  // namespace
}  // namespace corvid
