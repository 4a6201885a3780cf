#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "tests/support/Loopback.h"
#include "tests/support/Scratch.h"
#include "tests/support/Waiting.h"
#include "tests/tools/lab/Peer.h"
#include "tools/lab/HTTPServer.h"

namespace corvid::lab {
namespace {

using namespace std::chrono_literals;

// Every case in the clear and through TLS.
class HTTPServerTest : public testing::TestWithParam<bool> {
 protected:
  HTTPServerTest() {
    identity = std::make_unique<TLSIdentity>(_folder.path());
    peer = std::make_unique<Peer>(identity->caFile());
  }

  HTTPServer& serve(Handler handler) {
    HTTPServer::Options options;
    if (GetParam()) options.tls = identity->server();
    server = std::make_unique<HTTPServer>(std::move(handler), options);
    return *server;
  }
  HTTPServer& serve(Answer answer) {
    return serve([answer = std::move(answer)](const Request&) { return answer; });
  }

  std::unique_ptr<TLSIdentity> identity;
  std::unique_ptr<Peer> peer;
  std::unique_ptr<HTTPServer> server;

 private:
  const ScratchFolder _folder;
};

INSTANTIATE_TEST_SUITE_P(Transport, HTTPServerTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "TLS" : "Plain"; });

TEST_P(HTTPServerTest, GivesTheRequestToTheHandlerAndItsAnswerToThePeer) {
  Request seen;
  serve([&](const Request& request) {
    seen = request;
    return Answer{.status = 201, .headers = {{"X-Answer", "yes"}}, .body = "done"};
  });
  const Got got = peer->post(server->url("/a/b?c=d"), "hello");
  EXPECT_EQ(got.code, CURLE_OK);
  EXPECT_EQ(got.status, 201);
  EXPECT_EQ(got.body, "done");
  EXPECT_NE(got.head.find("X-Answer: yes\r\n"), std::string::npos);
  EXPECT_NE(got.head.find("Content-Length: 4\r\n"), std::string::npos);
  EXPECT_EQ(seen.method, "POST");
  EXPECT_EQ(seen.target, "/a/b?c=d");
  EXPECT_EQ(seen.body, "hello");
  EXPECT_EQ(seen.header("content-LENGTH"), "5");
  EXPECT_EQ(seen.headerCount("Host"), 1u);
}

TEST_P(HTTPServerTest, KeepsAConnectionForManyRequests) {
  serve(Answer{.body = "x"});
  for (int i = 0; i < 5; ++i) EXPECT_EQ(peer->get(server->url()).status, 200);
  EXPECT_EQ(server->connectionsAccepted(), 1u);
  EXPECT_EQ(server->requestsReceived(), 5u);
}

TEST_P(HTTPServerTest, CountsAnswersThatHaveLeft) {
  serve(Answer{.body = "x"});
  for (std::size_t i = 1; i <= 3; ++i) {
    EXPECT_EQ(peer->get(server->url()).status, 200);
    // The peer has it by now; the server counts a moment later.
    EXPECT_TRUE(waitUntil([&] { return server->requestsAnswered() == i; }));
  }
}

TEST_P(HTTPServerTest, ServesManyConnectionsAtOnce) {
  // The first requests are answered when all have come.
  Notice notice;
  int come = 0;
  serve([&](const Request& request) {
    notice.change([&] { ++come; });
    if (!notice.await([&] { return come >= 16; })) {
      ADD_FAILURE() << "one waits for the other";
      notice.change([&] { come = 16; });
    }
    return Answer{.body = request.body};
  });
  std::vector<std::thread> peers;
  for (int i = 0; i < 16; ++i)
    peers.emplace_back([&, i] {
      Peer one(identity->caFile());
      const std::string text = "peer " + std::to_string(i);
      for (int round = 0; round < 10; ++round) EXPECT_EQ(one.post(server->url(), text).body, text);
    });
  for (auto& thread : peers) thread.join();
  EXPECT_EQ(server->connectionsAccepted(), 16u);
  EXPECT_EQ(server->requestsReceived(), 160u);
}

TEST_P(HTTPServerTest, CarriesLargeBodiesBothWays) {
  serve([](const Request& request) { return Answer{.body = request.body}; });
  const std::string large(3'000'000, 'b');
  EXPECT_EQ(peer->post(server->url(), large).body, large);
}

TEST_P(HTTPServerTest, DelaysTheAnswer) {
  serve(Answer{.delay = 50ms});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(peer->get(server->url()).status, 200);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
}

TEST_P(HTTPServerTest, DripsTheBody) {
  serve(Answer{.body = std::string(10, 'd'), .drip = Answer::Drip{.pieceSize = 2, .pause = 5ms}});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(peer->get(server->url()).body, "dddddddddd");
  EXPECT_GE(std::chrono::steady_clock::now() - start, 25ms);
}

TEST_P(HTTPServerTest, CutsTheHeadShort) {
  serve(Answer{.cutHeadAfter = 12});
  const Got got = peer->get(server->url());
  EXPECT_NE(got.code, CURLE_OK);
  EXPECT_EQ(got.body, "");
}

TEST_P(HTTPServerTest, CutsTheBodyShort) {
  serve(Answer{.body = "0123456789", .cutBodyAfter = 4});
  const Got got = peer->get(server->url());
  EXPECT_NE(got.code, CURLE_OK);
  EXPECT_EQ(got.body, "0123");
}

TEST_P(HTTPServerTest, SendsAWrongLengthWhenTold) {
  serve(Answer{.headers = {{"Content-Length", "2"}}, .body = "0123456789", .hangUp = true});
  EXPECT_EQ(peer->get(server->url()).body, "01");
}

TEST_P(HTTPServerTest, SendsRawBytes) {
  serve(Answer{.raw = "HTTP/1.1 299 Odd\r\nContent-Length: 1\r\n\r\nx"});
  EXPECT_EQ(peer->get(server->url()).status, 299);
}

TEST_P(HTTPServerTest, RedirectsWithALocation) {
  serve(Answer::redirect("/elsewhere"));
  const Got got = peer->get(server->url());
  EXPECT_EQ(got.status, 302);
  EXPECT_NE(got.head.find("Location: /elsewhere\r\n"), std::string::npos);
}

TEST_P(HTTPServerTest, AnswersWithoutABodyWhereTheStatusHasNone) {
  serve(Answer{.status = 304});
  const Got got = peer->get(server->url());
  EXPECT_EQ(got.code, CURLE_OK);
  EXPECT_EQ(got.head.find("Content-Length"), std::string::npos);
}

TEST_P(HTTPServerTest, NeverAnswersWhenSilent) {
  serve(Answer{.silent = true});
  auto got = std::async(std::launch::async, [&] { return peer->get(server->url()); });
  EXPECT_TRUE(waitUntil([&] { return server->requestsReceived() == 1; }));
  EXPECT_EQ(got.wait_for(50ms), std::future_status::timeout);
  server->stop();
  const Got end = got.get();
  EXPECT_NE(end.code, CURLE_OK);
  EXPECT_EQ(end.head + end.body, "");
  EXPECT_EQ(server->requestsAnswered(), 0u);
}

TEST_P(HTTPServerTest, SendsAnEndlessBodyUntilThePeerGoes) {
  serve(Answer{.endless = true});
  const Got got = peer->get(server->url());
  EXPECT_EQ(got.code, CURLE_WRITE_ERROR);
  EXPECT_GT(got.body.size(), Peer::bodyLimit);
}

TEST_P(HTTPServerTest, StreamsABodyUntilItsWriterReturns) {
  serve({.headers = {{"Content-Type", "text/plain"}},
         .stream = [](const Answer::Write& write, const std::stop_token&) {
           for (const char* piece : {"one ", "two ", "three"}) EXPECT_TRUE(write(piece));
         }});
  const Got got = peer->get(server->url());
  EXPECT_EQ(got.code, CURLE_OK);
  EXPECT_EQ(got.body, "one two three");
  EXPECT_EQ(got.head.find("Content-Length"), std::string::npos);
}

TEST_P(HTTPServerTest, AStreamIsToldThatItsPeerHasGoneAndThatTheServerStops) {
  std::promise<void> gone;
  serve([&](const Request& request) -> Answer {
    if (request.target == "/endless")
      return {.stream = [&](const Answer::Write& write, const std::stop_token&) {
        while (write(std::string(100'000, 'x'))) continue;
        gone.set_value();
      }};
    return {.stream = [](const Answer::Write& write, const std::stop_token& stop) {
      write("begun");
      EXPECT_TRUE(waitUntil([&] { return stop.stop_requested(); }));
    }};
  });
  EXPECT_EQ(peer->get(server->url("/endless")).code, CURLE_WRITE_ERROR);  // it has had enough
  EXPECT_EQ(gone.get_future().wait_for(patience), std::future_status::ready);

  std::thread waiting([&, url = server->url("/wait")] { Peer(identity->caFile()).get(url); });
  EXPECT_TRUE(waitUntil([&] { return server->requestsReceived() == 2; }));
  server->stop();
  waiting.join();
}

TEST_P(HTTPServerTest, HangsUpUnannouncedAfterAnAnswer) {
  serve(Answer{.body = "x", .hangUp = true});
  for (int i = 0; i < 3; ++i) EXPECT_EQ(peer->get(server->url()).status, 200);
  EXPECT_EQ(server->connectionsAccepted(), 3u);
}

TEST_P(HTTPServerTest, MisbehavesBeforeTheFirstRequest) {
  serve(Answer{});
  for (const auto fault :
       {ConnectionFault::hangUp, ConnectionFault::garbage, ConnectionFault::neverSpeaks}) {
    server->setConnectionFault(fault);
    peer->timeout = fault == ConnectionFault::neverSpeaks ? 200ms : 20s;
    EXPECT_NE(peer->get(server->url()).status, 200) << static_cast<int>(fault);
  }
  EXPECT_EQ(server->requestsReceived(), 0u);
  server->setConnectionFault(ConnectionFault::none);
  peer->timeout = 20s;
  EXPECT_EQ(peer->get(server->url()).status, 200);
}

TEST_P(HTTPServerTest, StopEndsWhateverIsUnderWay) {
  serve([](const Request& request) {
    return request.target == "/silent"    ? Answer{.silent = true}
           : request.target == "/endless" ? Answer{.endless = true}
                                          : Answer{.delay = 1h};
  });
  std::vector<std::thread> peers;
  for (const char* target : {"/silent", "/endless", "/delayed"})
    peers.emplace_back([this, target] {
      // 20 seconds are longer than the test may take.
      EXPECT_NE(Peer(identity->caFile()).get(server->url(target)).code, CURLE_OPERATION_TIMEDOUT);
    });
  EXPECT_TRUE(waitUntil([&] { return server->requestsReceived() >= 3; }));
  server->stop();
  for (auto& thread : peers) thread.join();
  EXPECT_EQ(server->connectionsOpen(), 0u);
  EXPECT_EQ(peer->get(server->url()).code, CURLE_COULDNT_CONNECT);
}

// Bytes that no client library would send.
std::string exchangeRaw(std::uint16_t port, std::string_view bytes) {
  const Descriptor socket = connectOnLoopback(port);
  std::string answer;
  if (::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
      static_cast<ssize_t>(bytes.size())) {
    char buffer[1024];
    for (ssize_t count; (count = ::recv(socket.get(), buffer, sizeof buffer, 0)) > 0;)
      answer.append(buffer, static_cast<std::size_t>(count));
  }
  return answer;
}

TEST(HTTPServerRequestTest, RefusesWhatItCannotRead) {
  HTTPServer server([](const Request&) { return Answer{}; });
  const auto statusFor = [&](std::string_view bytes) {
    return exchangeRaw(server.port(), bytes).substr(0, 12);
  };
  EXPECT_EQ(statusFor("nonsense\r\n\r\n"), "HTTP/1.1 400");
  EXPECT_EQ(statusFor("GET / HTTP/1.1\r\nno colon\r\n\r\n"), "HTTP/1.1 400");
  EXPECT_EQ(statusFor("POST / HTTP/1.1\r\nContent-Length: x\r\n\r\n"), "HTTP/1.1 400");
  EXPECT_EQ(statusFor("POST / HTTP/1.1\r\nContent-Length: 999999999999\r\n\r\n"), "HTTP/1.1 413");
  EXPECT_EQ(statusFor("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"), "HTTP/1.1 411");
  EXPECT_EQ(statusFor("POST / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\nxx"),
            "HTTP/1.1 400");
  EXPECT_EQ(statusFor("GET / HTTP/1.1\r\nX: " + std::string(70'000, 'x')), "HTTP/1.1 431");
  EXPECT_EQ(server.requestsReceived(), 0u);
}

TEST(HTTPServerRequestTest, AnswersPipelinedRequestsInOrder) {
  HTTPServer server([](const Request& request) { return Answer{.body = request.target}; });
  const std::string answers = exchangeRaw(
      server.port(), "GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\nConnection: close\r\n\r\n");
  const auto first = answers.find("/1");
  ASSERT_NE(first, std::string::npos);
  EXPECT_NE(answers.find("/2", first), std::string::npos);
}

TEST(HTTPServerRequestTest, APortInUseIsAnError) {
  HTTPServer server([](const Request&) { return Answer{}; });
  EXPECT_THROW(HTTPServer([](const Request&) { return Answer{}; }, {.port = server.port()}),
               std::runtime_error);
}

TEST(HTTPServerRequestTest, AnUnusableCertificateIsAnError) {
  EXPECT_THROW(HTTPServer([](const Request&) { return Answer{}; },
                          {.tls = TLSCertificate{"/nonexistent.pem", "/nonexistent.key"}}),
               std::runtime_error);
}

}  // namespace
}  // namespace corvid::lab
