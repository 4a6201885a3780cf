// Log data on its way over HTTPS.
#include <atomic>
#include <thread>

#include "platform/data/PropertyList.h"
#include "tests/backends/dashboard/DashboardFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using Lines = std::vector<std::string>;

class LogDataUploadTest : public DashboardFixture {
 protected:
  LogDataUploadTest() {
    Dictionary profile = plainProfile();
    profile.set("post_url", "https://logs.test/put");
    make(profile);
  }

  const Array logData{"a line",
                      4,
                      2.5,
                      true,
                      Data{std::string("\x00\xff", 2)},
                      Date{1},
                      Dictionary{{"k", Array{"v"}}}};
};

TEST_F(LogDataUploadTest, PostsTheArrayAsABinaryPropertyList) {
  platform.http->answerWith(
      [](const HTTPRequest&) { return FakeHTTPClient::response(200, "store/17"); });
  EXPECT_TRUE(backend->uploadLogData(logData));
  const auto requests = platform.http->requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "POST");
  EXPECT_EQ(requests[0].url, "https://logs.test/put");
  EXPECT_EQ(requests[0].headers, (HTTPHeaders{{"Content-Type", "application/octet-stream"}}));
  EXPECT_TRUE(requests[0].body.starts_with("bplist00"));
  const auto archive = parsePropertyList(requests[0].body);
  ASSERT_TRUE(archive);
  EXPECT_EQ(archive.value(), Value(logData));
  EXPECT_EQ(debugLines(), Lines{"DashboardBackend(uploadLogData): Log data uploaded to store/17"});
  EXPECT_EQ(errors(), Lines{});
}

TEST_F(LogDataUploadTest, TheReportOfTheLocationSendsNothing) {
  platform.http->answerWith([](const HTTPRequest&) { return FakeHTTPClient::response(200, "x"); });
  ASSERT_TRUE(backend->uploadLogData(logData));
  network.runTasks();
  EXPECT_EQ(network.socket().attempts, 0);
}

// The running number of a backend's events, which nothing but its events shows.
struct EventCounter : CorvidBackend {
  static std::uint16_t of(const CorvidBackend& backend) {
    return backend.*(&EventCounter::_eventID);
  }
};

TEST_F(LogDataUploadTest, TheReportOfTheLocationCountsAsAnEvent) {
  platform.http->answerWith([](const HTTPRequest&) { return FakeHTTPClient::response(200, "x"); });
  ASSERT_EQ(EventCounter::of(*backend), 0);
  ASSERT_TRUE(backend->uploadLogData(logData));
  EXPECT_EQ(EventCounter::of(*backend), 1);
  ASSERT_TRUE(backend->uploadLogData(logData));
  EXPECT_EQ(EventCounter::of(*backend), 2);
}

TEST_F(LogDataUploadTest, AnyCompletedExchangeIsASuccess) {
  platform.http->answerWith([](const HTTPRequest&) { return FakeHTTPClient::response(500, ""); });
  EXPECT_TRUE(backend->uploadLogData({}));
  EXPECT_EQ(debugLines(), Lines{"DashboardBackend(uploadLogData): Log data uploaded to "});
  EXPECT_EQ(parsePropertyList(platform.http->requests()[0].body).value(), Value(Array{}));
}

TEST_F(LogDataUploadTest, ALocationThatIsNoTextIsMadeReadable) {
  platform.http->answerWith(
      [](const HTTPRequest&) { return FakeHTTPClient::response(200, "a\xff"); });
  EXPECT_TRUE(backend->uploadLogData(logData));
  EXPECT_EQ(debugLines(),
            Lines{"DashboardBackend(uploadLogData): Log data uploaded to a\xEF\xBF\xBD"});
}

TEST_F(LogDataUploadTest, AFailedExchangeIsAFailure) {
  platform.http->answerWith(
      [](const HTTPRequest&) { return FakeHTTPClient::error(7, "logs.test: no connection"); });
  EXPECT_FALSE(backend->uploadLogData(logData));
  EXPECT_EQ(errors(), Lines{"DashboardBackend(uploadLogData): Error uploading log data array "
                            "(logs.test: no connection)"});
}

TEST_F(LogDataUploadTest, NeitherAnswerNorErrorIsAFailureToo) {
  platform.http->answerWith([](const HTTPRequest&) { return HTTPOutcome{}; });
  EXPECT_FALSE(backend->uploadLogData(logData));
  EXPECT_EQ(errors(),
            Lines{"DashboardBackend(uploadLogData): Error uploading log data array ((null))"});
}

TEST_F(LogDataUploadTest, WithoutAnAddressNothingTouchesTheNetwork) {
  for (const Value& url : {Value(), Value(7)}) {
    platform.log.clear();
    Dictionary profile = plainProfile();
    profile.set("post_url", url);
    ASSERT_TRUE(make(profile));
    EXPECT_FALSE(backend->uploadLogData(logData));
    EXPECT_EQ(errors(),
              Lines{"DashboardBackend(uploadLogData): Post URL for log data array is nil"});
  }
  ASSERT_TRUE(makeExplicit());
  EXPECT_FALSE(backend->uploadLogData(logData));
  EXPECT_TRUE(platform.http->requests().empty());
}

TEST_F(LogDataUploadTest, WhatCannotBeArchivedIsNotSent) {
  for (const Value& item :
       {Value(), Value(Array{"x", Value()}), Value(Dictionary{{"k", Value()}})}) {
    platform.log.clear();
    EXPECT_FALSE(backend->uploadLogData({"a line", item}));
    EXPECT_EQ(
        errors(),
        Lines{"DashboardBackend(uploadLogData): Failed to serialize log data array for upload"});
  }
  EXPECT_TRUE(platform.http->requests().empty());
}

TEST_F(LogDataUploadTest, BlocksItsCallerUntilTheExchangeIsOver) {
  std::atomic<bool> isOver = false;
  bool answer = false;
  std::thread caller([&] {
    answer = backend->uploadLogData(logData);
    isOver = true;
  });
  EXPECT_TRUE(waitUntil([&] { return platform.http->exchangesUnderWay() > 0; }));
  EXPECT_FALSE(isOver);
  platform.http->completeNext(FakeHTTPClient::response(200, "there"));
  caller.join();
  EXPECT_TRUE(answer);
}

}  // namespace
}  // namespace corvid
