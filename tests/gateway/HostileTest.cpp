#include <fmt/format.h>

#include "gateway/Limits.h"
#include "tests/gateway/GatewayFixture.h"
#include "tools/Gzip.h"

namespace corvid::fleet {
namespace {

class HostileTest : public GatewayTest {
 protected:
  HostileTest() { inForce.settings.clientTime = 1'000'000; }
  // What is answered to bytes on a connection of their own.
  int statusOf(std::string_view bytes) {
    Caller caller(port);
    caller.send(bytes);
    const auto got = caller.answer();
    return got ? got->status : 0;
  }
  // Somebody who does nothing wrong.
  void expectServed() { EXPECT_EQ(postEvents(onePost)->status, 200); }
};

TEST_F(HostileTest, EveryWrongBodyHasItsLine) {
  start();
  const std::vector<std::pair<std::string, std::string>> bodies{
      {"", "the body is not JSON at byte 0\n"},
      {"[]", "the body is no JSON object at byte 0\n"},
      {"{}", "the object has no \"events\" at byte 2\n"},
      {R"({"events":1})", "\"events\" is no array at byte 10\n"},
      {R"({"events":[1]})", "an event is no object at byte 11\n"},
      {R"({"events":[]}x)", "something follows the JSON object at byte 13\n"},
      {R"({"events":[{"a":1,"a":2}]})", "a key stands twice in one object at byte 19\n"},
      {R"({"events":[{"a":1e999}]})", "a number is out of range at byte 16\n"},
      {R"({"events":[{"a":"\u0000"}]})", "the body holds the character NUL at byte 17\n"},
      {R"({"events":[{"a":"\udc00"}]})", "a text holds one half of a surrogate pair at byte 17\n"},
      {"{\"events\":[{\"a\":\"\xff\"}]}", "the body is not UTF-8 at byte 17\n"},
      {R"({"a":)" + std::string(40, '['), "the body is nested deeper than 32 levels at byte 36\n"},
  };
  for (const auto& [body, line] : bodies) {
    const auto plain = postEvents(body);
    ASSERT_TRUE(plain) << line;
    EXPECT_EQ(plain->status, 400) << line;
    EXPECT_EQ(plain->body, line);
    const auto packed = postEvents(gzip(body), {"Content-Encoding: gzip"});
    ASSERT_TRUE(packed) << line;
    EXPECT_EQ(packed->body, line);
  }
  EXPECT_TRUE(log.messages().empty());
  expectServed();
}

TEST_F(HostileTest, WhatIsNotOneWholeGzipStreamIsRefused) {
  start();
  const std::string packed = gzip(onePost);
  const std::vector<std::string> headers{"Content-Encoding: gzip"};
  for (const std::string& body : {std::string(onePost), packed + "x", packed + packed,
                                  std::string(), packed.substr(0, packed.size() - 1)}) {
    const auto got = postEvents(body, headers);
    ASSERT_TRUE(got);
    EXPECT_EQ(got->status, 400);
    EXPECT_EQ(got->body, "the body is not one whole gzip stream\n");
  }
}

TEST_F(HostileTest, OtherEncodingsAreRefused) {
  start();
  for (const char* const encoding : {"deflate", "br", "gzip, gzip", "", "GZIP "})
    EXPECT_EQ(postEvents(gzip(onePost), {fmt::format("Content-Encoding: {}", encoding)})->status,
              std::string_view(encoding) == "GZIP " ? 200 : 415)
        << encoding;
  EXPECT_EQ(postEvents(gzip(onePost), {"Content-Encoding: gzip", "Content-Encoding: gzip"})->status,
            415);
}

TEST_F(HostileTest, AGzipBombIsRefusedWithinTheBudget) {
  start();
  // 65 MiB of blanks, which would be JSON as far as they go.
  const std::string bomb = gzip(std::string(65 * limits::mebibyte, ' '));
  EXPECT_LT(bomb.size(), 100'000u);
  const auto got = postEvents(bomb, {"Content-Encoding: gzip"});
  ASSERT_TRUE(got);
  EXPECT_EQ(got->status, 413);
  EXPECT_EQ(got->body, "the body is too large when it is unpacked; the most are 67108864 bytes\n");
  expectServed();
}

TEST_F(HostileTest, ABombThatIsNoJSONIsRefusedAtItsFirstByte) {
  start();
  EXPECT_EQ(
      postEvents(gzip(std::string(65 * limits::mebibyte, 'x')), {"Content-Encoding: gzip"})->body,
      "the body is not JSON at byte 0\n");
}

TEST_F(HostileTest, WhatTheCheckForKeysRemembersIsWithinTheBudgetToo) {
  options.memory = 16 * limits::mebibyte;
  start();
  // Objects that stay open, each with as many members as may be: 20 bytes are kept for each of
  // them, and the text takes less than half of the budget.
  std::string body = R"({"events":[)";
  for (int level = 0; level < 8; ++level) {
    body += '{';
    for (std::size_t i = 0; i < limits::members - 1; ++i) body += fmt::format("\"{:x}\":0,", i);
    body += "\"n\":";
  }
  const auto got = postEvents(gzip(body), {"Content-Encoding: gzip"});
  ASSERT_TRUE(got);
  EXPECT_EQ(got->status, 429);
  EXPECT_EQ(settled(Rule::clientMemory), 1u);
}

TEST_F(HostileTest, ABodyThatIsTooLargeAsSentIsRefusedBeforeItIsRead) {
  start();
  EXPECT_EQ(statusOf(fmt::format("POST /v1/events HTTP/1.1\r\nContent-Length: {}\r\n\r\n",
                                 limits::sentBytes + 1)),
            413);
  EXPECT_EQ(statusOf("POST /v1/events HTTP/1.1\r\nContent-Length: 18446744073709551615\r\n\r\n"),
            413);
}

TEST_F(HostileTest, ABodyInChunksIsBoundedToo) {
  start();
  Caller caller(port);
  caller.send("POST /v1/events HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n");
  const std::string piece = "100000\r\n" + std::string(0x100000, ' ') + "\r\n";
  for (int i = 0; i < 9; ++i)
    if (!caller.send(piece)) break;
  EXPECT_EQ(caller.answer()->status, 413);
}

TEST_F(HostileTest, LiesAboutLengthsAreRefused) {
  start();
  const std::string line = "POST /v1/events HTTP/1.1\r\n";
  EXPECT_EQ(statusOf(line + "\r\n"), 411);
  EXPECT_EQ(statusOf(line + "Content-Length: 1x\r\n\r\n"), 400);
  EXPECT_EQ(statusOf(line + "Content-Length: -1\r\n\r\n"), 400);
  EXPECT_EQ(statusOf(line + "Content-Length: 99999999999999999999\r\n\r\n"), 400);
  EXPECT_EQ(statusOf(line + "Content-Length: 2\r\nContent-Length: 3\r\n\r\n{}"), 400);
  EXPECT_EQ(statusOf(line + "Content-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"),
            400);
  EXPECT_EQ(statusOf(line + "Transfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n"), 400);
  EXPECT_EQ(statusOf(line + "Transfer-Encoding: chunked\r\n\r\nzz\r\n"), 400);
  EXPECT_EQ(statusOf(line + "Transfer-Encoding: chunked\r\n\r\n1;" + std::string(20'000, 'x')),
            400);
  expectServed();
}

TEST_F(HostileTest, ABodyThatEndsBeforeItsLengthIsCounted) {
  start();
  {
    Caller caller(port);
    caller.send("POST /v1/events HTTP/1.1\r\nContent-Length: 100\r\n\r\n{\"events\":");
    ASSERT_TRUE(waitUntil([&] { return gateway->balance().received[0] == 1; }));
  }
  EXPECT_TRUE(waitUntil([&] { return settled(Rule::cutOff) == 1; }));
}

TEST_F(HostileTest, WhatIsNoHTTPIsRefused) {
  start();
  EXPECT_EQ(statusOf("hello\r\n\r\n"), 400);
  EXPECT_EQ(statusOf("POST /v1/events HTTP/2.0\r\n\r\n"), 400);
  EXPECT_EQ(statusOf("POST /v1/events HTTP/1.1\r\nNo colon\r\n\r\n"), 400);
  EXPECT_EQ(statusOf(std::string("POST /v1/e\0 HTTP/1.1\r\n\r\n", 25)), 400);
  EXPECT_EQ(statusOf("\x16\x03\x01\x02\x00 a handshake\r\n\r\n"), 400);
  expectServed();
}

TEST_F(HostileTest, EndlessHeadersAreRefused) {
  start();
  Caller many(port);
  many.send("POST /v1/events HTTP/1.1\r\n");
  for (int i = 0; i < 2000; ++i)
    if (!many.send(fmt::format("X-{}: value\r\n", i))) break;
  EXPECT_EQ(many.answer()->status, 431);
  EXPECT_EQ(statusOf("POST /v1/events HTTP/1.1\r\nX: " + std::string(20'000, 'x')), 431);
  EXPECT_EQ(statusOf("POST /" + std::string(20'000, 'x')), 431);
  expectServed();
}

TEST_F(HostileTest, HeadersThatCannotBeStoredAreRefused) {
  start();
  EXPECT_EQ(postEvents(onePost, {"X-CVD-Sender: ZH", "x-cvd-SENDER: QA"})->status, 400);
  EXPECT_EQ(postEvents(onePost, {"X-CVD-Sender: " + std::string(1025, 'x')})->status, 400);
  EXPECT_EQ(postEvents(onePost, {"X-CVD-Sender: a\tb"})->status, 400);
}

TEST_F(HostileTest, OtherAddressesAndMethodsAreRefused) {
  start();
  EXPECT_EQ(get(port, "/v1/event")->status, 404);
  EXPECT_EQ(get(port, "/metrics")->status, 404) << "of the other address";
  const auto got = get(port, "/v1/events");
  EXPECT_EQ(got->status, 405);
  EXPECT_EQ(got->headers.at("allow"), "POST");
}

TEST_F(HostileTest, SlowHeadersAndBodiesRunOutOfTime) {
  inForce.settings.headTime = inForce.settings.bodyTime = std::chrono::milliseconds(100);
  start();
  Caller head(port);
  head.send("POST /v1/events HTTP/1.1\r\nX-");
  Caller body(port);
  body.send("POST /v1/events HTTP/1.1\r\nContent-Length: 100\r\n\r\n{");
  EXPECT_EQ(head.answer()->status, 408);
  EXPECT_EQ(body.answer()->status, 408);
  EXPECT_EQ(settled(Rule::slowHead), 1u);
  EXPECT_EQ(settled(Rule::slowBody), 1u);
}

TEST_F(HostileTest, ABodyThatPausesForTooLongIsGivenUpWhateverHasCome) {
  inForce.settings.bodyTime = std::chrono::milliseconds(200);
  inForce.settings.bodyRate = 1;  // a second more for each byte
  start();
  Caller body(port);
  body.send("POST /v1/events HTTP/1.1\r\nContent-Length: 1000000\r\n\r\n{" +
            std::string(500'000, ' '));
  EXPECT_EQ(body.answer()->status, 408);
  EXPECT_EQ(settled(Rule::slowBody), 1u);
}

TEST_F(HostileTest, AnIdleConnectionIsClosedWithoutAWord) {
  inForce.settings.idleTime = std::chrono::milliseconds(100);
  start();
  Caller silent(port);
  EXPECT_FALSE(silent.answer());
  EXPECT_TRUE(silent.isClosed());
}

TEST_F(HostileTest, AnAnswerReachesAPeerThatGoesOnSending) {
  start();
  Caller caller(port);
  caller.send("POST /v1/none HTTP/1.1\r\nContent-Length: 3000000\r\n\r\n");
  caller.send(std::string(3'000'000, 'x'));
  const auto got = caller.answer();
  ASSERT_TRUE(got);
  EXPECT_EQ(got->status, 404);
  EXPECT_EQ(got->headers.at("connection"), "close");
}

TEST_F(HostileTest, NobodyWaitsForABombOfAnother) {
  options.threads = 1;
  start();
  const std::string bomb = request("/v1/events", gzip(std::string(60 * limits::mebibyte, ' ')),
                                   {"Content-Encoding: gzip"});
  std::vector<std::unique_ptr<Caller>> bombers;
  for (int i = 0; i < 2; ++i) {
    bombers.push_back(std::make_unique<Caller>(port));
    bombers.back()->send(bomb);
  }
  // Each bomb takes many turns, and others have theirs in between.
  ASSERT_TRUE(waitUntil([&] { return gateway->memoryUsed() > limits::mebibyte; }));
  expectServed();
  EXPECT_EQ(settled(Rule::noJSON), 0u) << "the bombs were over before";
  for (const auto& bomber : bombers) EXPECT_EQ(bomber->answer()->status, 400);
}

}  // namespace
}  // namespace corvid::fleet
