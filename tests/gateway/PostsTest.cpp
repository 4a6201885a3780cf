#include <openssl/evp.h>

#include "base/Text.h"
#include "tests/gateway/GatewayFixture.h"
#include "tools/Gzip.h"

namespace corvid::fleet {
namespace {

using PostsTest = GatewayTest;

std::string headerOf(const LogMessage& message, std::string_view name) {
  for (const auto& [each, value] : message.headers)
    if (each == name) return value;
  return "(none)";
}

TEST_F(PostsTest, APlainPostIsStoredAsItCameBeforeItIsAcknowledged) {
  start();
  const auto got = postEvents(onePost, {"X-CVD-Sender: ZH"});
  ASSERT_TRUE(got);
  EXPECT_EQ(got->status, 200);
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(log.messages()[0].body, onePost);
  EXPECT_EQ(log.messages()[0].stream, "events");
}

TEST_F(PostsTest, AGzipPostIsStoredUnpacked) {
  start();
  const auto got = postEvents(gzip(onePost), {"Content-Encoding: gzip"});
  ASSERT_TRUE(got);
  EXPECT_EQ(got->status, 200) << got->body;
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(log.messages()[0].body, onePost);
}

TEST_F(PostsTest, TheMessageHasTheHeadersTheRouteAndTheTime) {
  start();
  const auto before = std::chrono::system_clock::now().time_since_epoch();
  const auto got = post(port, "/v1/realtime", onePost,
                        {"x-cvd-sender: ZH", "X-CVD-Client-Name: Player", "X-CVD-Client-Version: 3",
                         "X-CVD-Event-Map: 7 2", "X-Other: no"});
  ASSERT_TRUE(got);
  EXPECT_EQ(got->status, 200);
  const LogMessage message = log.messages().at(0);
  EXPECT_EQ(headerOf(message, "X-CVD-Sender"), "ZH");
  EXPECT_EQ(headerOf(message, "X-CVD-Client-Name"), "Player");
  EXPECT_EQ(headerOf(message, "X-CVD-Client-Version"), "3");
  EXPECT_EQ(headerOf(message, "X-CVD-Event-Map"), "7 2");
  EXPECT_EQ(headerOf(message, "X-Other"), "(none)");
  EXPECT_EQ(headerOf(message, "route"), "realtime");
  EXPECT_GE(std::stod(headerOf(message, "received")),
            std::chrono::duration<double>(before).count() - 0.001);
}

TEST_F(PostsTest, TheIDIsTheDigestOfTheUnpackedBodyAndItsClient) {
  start();
  (void)postEvents(gzip(onePost), {"Content-Encoding: gzip", "X-CVD-Sender: ZH"});
  std::string digested = onePost;
  digested.append(1, '\0').append("ZH").append(2, '\0');
  std::string digest(32, '\0');
  EVP_Digest(digested.data(), digested.size(), reinterpret_cast<unsigned char*>(digest.data()),
             nullptr, EVP_sha256(), nullptr);
  EXPECT_EQ(log.messages().at(0).id, hexadecimal(digest));
}

TEST_F(PostsTest, APostMadeTwiceIsStoredOnceHoweverItIsPacked) {
  start();
  EXPECT_EQ(postEvents(onePost)->status, 200);
  EXPECT_EQ(postEvents(gzip(onePost), {"Content-Encoding: GZIP"})->status, 200);
  EXPECT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(postEvents(onePost, {"X-CVD-Sender: QA"})->status, 200);
  EXPECT_EQ(log.messages().size(), 2u) << "of another client";
}

TEST_F(PostsTest, EventsOfAcknowledgedPostsAreCounted) {
  start();
  EXPECT_EQ(postEvents(R"({"events":[{},{"a":[{},{}]},{}]})")->status, 200);
  EXPECT_EQ(postEvents(R"({"events":[]})")->status, 200);
  EXPECT_EQ(gateway->balance().events, 3u);
}

TEST_F(PostsTest, AConnectionTakesOneRequestAfterTheOther) {
  start();
  Caller caller(port);
  for (int i = 0; i < 5; ++i) {
    caller.send(request("/v1/events", onePost));
    const auto got = caller.answer();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->status, 200);
  }
}

TEST_F(PostsTest, RequestsThatComeAtOnceAreAnsweredInTheirOrder) {
  start();
  Caller caller(port);
  caller.send(request("/v1/events", onePost) + request("/v1/none", ""));
  EXPECT_EQ(caller.answer()->status, 200);
  EXPECT_EQ(caller.answer()->status, 404);
}

TEST_F(PostsTest, ABodyInChunksIsTaken) {
  start();
  Caller caller(port);
  caller.send("POST /v1/events HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n");
  caller.send("5\r\n{\"eve\r\n");
  caller.send("8;x=y\r\nnts\":[]}\r\n0\r\nTrailer: yes\r\n\r\n");
  EXPECT_EQ(caller.answer()->status, 200);
  EXPECT_EQ(log.messages().at(0).body, R"({"events":[]})");
}

TEST_F(PostsTest, AClientThatAsksFirstIsToldToGoOn) {
  start();
  Caller caller(port);
  caller.send("POST /v1/events HTTP/1.1\r\nContent-Length: 13\r\nExpect: 100-continue\r\n\r\n");
  EXPECT_EQ(caller.answer()->status, 100);
  caller.send(R"({"events":[]})");
  EXPECT_EQ(caller.answer()->status, 200);
}

TEST_F(PostsTest, ALargePostIsTakenByteForByte) {
  start();
  std::string body = R"({"events":[)";
  for (int i = 0; i < 60'000; ++i)
    body += R"({"number":)" + std::to_string(i) +
            R"(,"text":"Grüße aus dem Feld, aus Wald und Flur und von der Heide, wo es blüht"},)";
  body.back() = ']';
  body += '}';
  EXPECT_EQ(postEvents(gzip(body), {"Content-Encoding: gzip"})->status, 200);
  EXPECT_TRUE(log.messages().at(0).body == body);
  EXPECT_EQ(gateway->balance().events, 60'000u);
}

TEST_F(PostsTest, WhatTheLogRefusesForGoodIsNoFaultOfTheGateway) {
  log.setMode(FakeLog::Mode::refuses);
  start();
  EXPECT_EQ(postEvents(onePost)->status, 422);
  EXPECT_EQ(settled(Rule::logRefused), 1u);
}

}  // namespace
}  // namespace corvid::fleet
