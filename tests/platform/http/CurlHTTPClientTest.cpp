// What the client does when nothing goes wrong.
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "platform/http/CurlHTTPClient.h"
#include "tests/fakes/FakeFileSystem.h"
#include "tests/platform/http/HTTPClientFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

INSTANTIATE_TEST_SUITE_P(Transport, HTTPClientTest, testing::Bool(), transportName);

TEST_P(HTTPClientTest, BringsStatusHeadersAndBody) {
  serve(lab::Answer{.headers = {{"Last-Modified", "Tue"}, {"cache-control", " max-age=600 "}},
                    .body = "a storebag"});
  const HTTPOutcome outcome = perform(get());
  ASSERT_TRUE(outcome.response);
  EXPECT_FALSE(outcome.error);
  EXPECT_EQ(outcome.response->status, 200);
  EXPECT_EQ(outcome.response->header("last-modified"), "Tue");
  EXPECT_EQ(outcome.response->header("Cache-Control"), "max-age=600");
  EXPECT_EQ(outcome.response->header("Content-Length"), "10");
  EXPECT_EQ(outcome.response->header("ETag"), std::nullopt);
  EXPECT_EQ(outcome.response->body, "a storebag");
}

TEST_P(HTTPClientTest, TheValuesOfARepeatedHeaderAreOneList) {
  serve(lab::Answer{.headers = {{"Cache-Control", "max-age=600"}, {"cache-control", "public"}}});
  const HTTPOutcome outcome = perform(get());
  ASSERT_TRUE(outcome.response);
  EXPECT_EQ(outcome.response->header("Cache-Control"), "max-age=600, public");
}

TEST_P(HTTPClientTest, AnyStatusIsAResponse) {
  serve([](const lab::Request& request) {
    return lab::Answer{.status = std::stoi(request.target.substr(1))};
  });
  for (const int status : {204, 304, 401, 404, 499, 500, 503, 599}) {
    const HTTPOutcome outcome = perform(get("/" + std::to_string(status)));
    ASSERT_TRUE(outcome.response) << status << " " << outcome.error->description;
    EXPECT_EQ(outcome.response->status, status);
  }
}

TEST_P(HTTPClientTest, ABodyTakesNoMemoryAfterItsExchange) {
  const auto bytesInUse = [] {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
  };
  if (bytesInUse() == 0) GTEST_SKIP() << "this allocator does not tell what is in use";
  serve(lab::Answer{});
  ASSERT_EQ(codeOf(post("small")), 0);
  const std::size_t before = bytesInUse();
  constexpr std::size_t size = std::size_t{8} << 20;
  ASSERT_EQ(codeOf(post(std::string(size, 'x'))), 0);
  server.reset();  // has the body too
  EXPECT_LT(bytesInUse(), before + size / 2);
}

TEST_P(HTTPClientTest, SendsTheRequestAsGiven) {
  lab::Request seen;
  serve([&](const lab::Request& request) {
    seen = request;
    return lab::Answer{};
  });
  HTTPRequest request = post(std::string("\0bytes\xff", 7), "/post?a=b%20c");
  request.headers = {
      {"X-CVD-Client-Name", "name"},  {"User-Agent", "Corvid/1.0"},         {"X-Empty", ""},
      {"Accept", "application/json"}, {"Content-Type", "application/json"}, {"Content-Length", "7"},
      {"Content-Encoding", "gzip"}};
  ASSERT_EQ(codeOf(request), 0);
  EXPECT_EQ(seen.method, "POST");
  EXPECT_EQ(seen.target, "/post?a=b%20c");
  EXPECT_EQ(seen.body, request.body);
  for (const auto& [name, value] : request.headers) {
    EXPECT_EQ(seen.header(name), value);
    EXPECT_EQ(seen.headerCount(name), 1u) << name;
  }
  EXPECT_EQ(seen.headers.size(), request.headers.size() + 1) << "only Host is added";
  EXPECT_EQ(seen.headerCount("Host"), 1u);
}

TEST_P(HTTPClientTest, AddsNothingButHostAndLength) {
  lab::Request seen;
  serve([&](const lab::Request& request) {
    seen = request;
    return lab::Answer{};
  });
  ASSERT_EQ(codeOf(get()), 0);
  EXPECT_EQ(seen.headers.size(), 1u);
  EXPECT_EQ(seen.headerCount("Host"), 1u);
  // Large enough for the library's wish to be asked to continue.
  ASSERT_EQ(codeOf(post(std::string(2'000'000, 'b'))), 0);
  EXPECT_EQ(seen.headers.size(), 2u);
  EXPECT_EQ(seen.header("Content-Length"), "2000000");
  ASSERT_EQ(codeOf(post("")), 0);
  EXPECT_EQ(seen.headers.size(), 2u);
  EXPECT_EQ(seen.header("Content-Length"), "0");
}

TEST_P(HTTPClientTest, SendsTheRestOfABodyFromItsFile) {
  lab::Request seen;
  serve([&](const lab::Request& request) {
    seen = request;
    return lab::Answer{};
  });
  FakeFileSystem files(clock);
  std::string rest;
  for (int i = 0; rest.size() < 3'000'000; ++i) rest += std::to_string(i);
  for (const std::string& body :
       {std::string("begin, "), std::string(), std::string(100'000, 'b')}) {
    HTTPRequest request = post(body);
    const auto file = files.createUnnamedFile("/").value();
    ASSERT_FALSE(file->append(rest));
    request.rest = file;
    ASSERT_EQ(codeOf(request), 0);
    EXPECT_TRUE(seen.body == body + rest);
    EXPECT_EQ(seen.headers.size(), 2u) << "host and length";
    ASSERT_EQ(codeOf(post("other")), 0);
    EXPECT_EQ(seen.body, "other");
  }
}

TEST_P(HTTPClientTest, ABodyWhoseFileCannotBeReadIsAnError) {
  class Unreadable final : public UnnamedFile {
   public:
    std::optional<Failure> append(std::string_view) override { return std::nullopt; }
    std::size_t size() const override { return 1'000'000; }
    std::optional<std::size_t> read(std::size_t offset, std::span<char> room) const override {
      if (offset > 500'000) return std::nullopt;
      return room.size();
    }
  };
  serve(lab::Answer{});
  HTTPRequest request = post("begin");
  request.rest = std::make_shared<Unreadable>();
  EXPECT_EQ(codeOf(request), CURLE_ABORTED_BY_CALLBACK);
  EXPECT_EQ(codeOf(get()), 0);
}

TEST_P(HTTPClientTest, RequestsOnOneConnectionDoNotColourEachOther) {
  std::vector<lab::Request> seen;
  serve([&](const lab::Request& request) {
    seen.push_back(request);
    return lab::Answer{};
  });
  HTTPRequest first = post("body");
  first.headers = {{"X-First", "1"}};
  ASSERT_EQ(codeOf(first), 0);
  ASSERT_EQ(codeOf(get()), 0);
  ASSERT_EQ(codeOf(post("other")), 0);
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[1].method, "GET");
  EXPECT_EQ(seen[1].body, "");
  EXPECT_EQ(seen[1].headerCount("X-First"), 0u);
  EXPECT_EQ(seen[2].body, "other");
  EXPECT_EQ(server->connectionsAccepted(), 1u);
}

TEST_P(HTTPClientTest, AsksAgainHoweverLongAnAnswerMayBeKept) {
  serve(lab::Answer{.headers = {{"Cache-Control", "max-age=86400"}}, .body = "x"});
  ASSERT_EQ(codeOf(get()), 0);
  ASSERT_EQ(codeOf(get()), 0);
  EXPECT_EQ(server->requestsReceived(), 2u);
}

TEST_P(HTTPClientTest, CarriesLargeBodiesBothWays) {
  serve([](const lab::Request& request) { return lab::Answer{.body = request.body}; });
  std::string large;
  for (int i = 0; large.size() < 5'000'000; ++i) large += std::to_string(i);
  const HTTPOutcome outcome = perform(post(large));
  ASSERT_TRUE(outcome.response);
  EXPECT_TRUE(outcome.response->body == large);
}

TEST_P(HTTPClientTest, DropsTheBodyWhereNoneIsWanted) {
  serve(lab::Answer{.body = std::string(100'000, 'b')});
  HTTPRequest request = get();
  request.wantsBody = false;
  const HTTPOutcome outcome = perform(request);
  ASSERT_TRUE(outcome.response);
  EXPECT_EQ(outcome.response->status, 200);
  EXPECT_EQ(outcome.response->body, "");
}

TEST_P(HTTPClientTest, TakesChunkedBodiesAndSkipsInterimAnswers) {
  serve(lab::Answer{.raw = "HTTP/1.1 103 Early Hints\r\nX-Interim: 1\r\n\r\n"
                           "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nX-Final: 1\r\n\r\n"
                           "5\r\nhello\r\n0\r\nX-Trailer: 1\r\n\r\n"});
  const HTTPOutcome outcome = perform(get());
  ASSERT_TRUE(outcome.response) << outcome.error->description;
  EXPECT_EQ(outcome.response->status, 200);
  EXPECT_EQ(outcome.response->body, "hello");
  EXPECT_EQ(outcome.response->header("X-Interim"), std::nullopt);
  EXPECT_EQ(outcome.response->header("X-Final"), "1");
}

TEST_P(HTTPClientTest, UsesOneConnectionForOneExchangeAfterAnother) {
  serve(lab::Answer{.body = "x"});
  for (int i = 0; i < 20; ++i) ASSERT_EQ(codeOf(post("event")), 0);
  EXPECT_EQ(server->requestsReceived(), 20u);
  EXPECT_EQ(server->connectionsAccepted(), 1u);
}

TEST_P(HTTPClientTest, ManyAtOnceShareTheHostsConnections) {
  serve(lab::Answer{});
  Outcomes outcomes;
  for (int i = 0; i < 500; ++i) client->start(post("event"), outcomes.completion());
  ASSERT_TRUE(outcomes.waitFor(500));
  for (const auto& outcome : outcomes.all()) EXPECT_TRUE(outcome.response);
  EXPECT_EQ(server->requestsReceived(), 500u);
  EXPECT_LE(server->connectionsAccepted(), CurlHTTPClient::mostConnectionsPerHost);
}

TEST_P(HTTPClientTest, IgnoresProxiesOfTheEnvironment) {
  for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "ALL_PROXY", "HTTPS_PROXY"})
    ::setenv(name, "http://127.0.0.1:1", 1);
  serve(lab::Answer{});
  EXPECT_EQ(codeOf(get()), 0);
}

TEST_P(HTTPClientTest, SendsNoCookiesBack) {
  std::size_t cookies = 0;
  serve([&](const lab::Request& request) {
    cookies += request.headerCount("Cookie");
    return lab::Answer{.headers = {{"Set-Cookie", "a=b; Path=/"}}};
  });
  ASSERT_EQ(codeOf(get()), 0);
  ASSERT_EQ(codeOf(get()), 0);
  EXPECT_EQ(cookies, 0u);
}

TEST_P(HTTPClientTest, AsksForHTTP11Only) {
  serve(lab::Answer{});
  ASSERT_EQ(codeOf(get()), 0);
  EXPECT_EQ(server->requestsReceived(), 1u) << "the server reads HTTP/1.1 and nothing else";
}

TEST_P(HTTPClientTest, CompletesEveryExchangeOnceFromSeveralThreads) {
  serve([](const lab::Request& request) { return lab::Answer{.body = request.body}; });
  constexpr int threadCount = 8, each = 50;
  std::array<std::atomic<int>, threadCount * each> completed{};
  std::atomic<int> right = 0;
  Outcomes outcomes;
  std::vector<std::thread> threads;
  for (int t = 0; t < threadCount; ++t)
    threads.emplace_back([&, t] {
      for (int i = t * each; i < (t + 1) * each; ++i)
        client->start(post(std::to_string(i)), [&, i](HTTPOutcome outcome) {
          ++completed[static_cast<std::size_t>(i)];
          if (outcome.response && outcome.response->body == std::to_string(i)) ++right;
          outcomes.completion()(std::move(outcome));
        });
    });
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(outcomes.waitFor(threadCount * each));
  client.reset();
  EXPECT_EQ(right, threadCount * each);
  for (const auto& count : completed) EXPECT_EQ(count, 1);
}

TEST_P(HTTPClientTest, ACompletionMayStartTheNextExchange) {
  serve(lab::Answer{});
  Outcomes outcomes;
  std::function<void(int)> chain = [&](int left) {
    client->start(post("x"), [&, left](HTTPOutcome outcome) {
      if (left > 0) chain(left - 1);
      outcomes.completion()(std::move(outcome));
    });
  };
  chain(9);
  ASSERT_TRUE(outcomes.waitFor(10));
  EXPECT_EQ(server->requestsReceived(), 10u);
}

TEST_P(HTTPClientTest, CountsWhatIsUnderWayAndSaysWhenItIsIdle) {
  int idle = 0;
  std::size_t underWayThen = 99;
  Notice notice;
  CurlHTTPClient::Options options = defaultOptions();
  options.onIdle = [&] {
    notice.change([&] {
      underWayThen = client->exchangesUnderWay();
      ++idle;
    });
  };
  restartClient(options);
  serve(lab::Answer{});
  EXPECT_EQ(client->exchangesUnderWay(), 0u);

  std::size_t underWayInCompletion = 0;
  const auto performOne = [&](int times) {
    client->start(get(), [&](HTTPOutcome) { underWayInCompletion = client->exchangesUnderWay(); });
    ASSERT_TRUE(notice.await([&] { return idle == times; }));
  };
  performOne(1);
  EXPECT_EQ(underWayInCompletion, 1u);
  EXPECT_EQ(underWayThen, 0u);
  performOne(2);
}

TEST_P(HTTPClientTest, ClosesItsConnectionsAfterTheIdleTime) {
  serve(lab::Answer{});
  ASSERT_EQ(codeOf(get()), 0);
  ASSERT_TRUE(clock->awaitSleeper(90s));
  clock->advance(90s - 1ms);
  ASSERT_EQ(codeOf(get()), 0);
  EXPECT_EQ(server->connectionsAccepted(), 1u);
  ASSERT_TRUE(clock->awaitSleeper(90s));
  clock->advance(90s);
  EXPECT_TRUE(waitUntil([&] { return server->connectionsOpen() == 0; }));
  ASSERT_EQ(codeOf(get()), 0);
  EXPECT_EQ(server->connectionsAccepted(), 2u);
}

}  // namespace
}  // namespace corvid
