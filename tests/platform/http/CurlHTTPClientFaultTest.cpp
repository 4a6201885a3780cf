// What the client makes of servers, networks and requests that are not as they should be.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>

#include "tests/platform/http/HTTPClientFixture.h"

namespace corvid {
namespace {

using testing::HasSubstr;

class HTTPClientFaultTest : public HTTPClientTest {};

INSTANTIATE_TEST_SUITE_P(Transport, HTTPClientFaultTest, testing::Bool(), transportName);

TEST_P(HTTPClientFaultTest, DoesNotFollowRedirects) {
  serve(lab::Answer::redirect("/elsewhere"));
  const HTTPOutcome outcome = perform(get());
  ASSERT_TRUE(outcome.response);
  EXPECT_EQ(outcome.response->status, 302);
  EXPECT_EQ(outcome.response->header("Location"), "/elsewhere");
  EXPECT_EQ(server->requestsReceived(), 1u);
}

TEST_P(HTTPClientFaultTest, ABodyAtTheCapIsTakenAndOneByteMoreIsAnError) {
  constexpr std::size_t cap = Transfer::mostBodyBytes;
  serve([](const lab::Request& request) {
    return lab::Answer{.body = std::string(cap + (request.target == "/more"), 'b')};
  });
  const HTTPOutcome whole = perform(get("/whole"));
  ASSERT_TRUE(whole.response);
  EXPECT_EQ(whole.response->body.size(), cap);
  EXPECT_EQ(codeOf(get("/more")), CURLE_FILESIZE_EXCEEDED);
}

TEST_P(HTTPClientFaultTest, AnEndlessBodyIsCutAtTheCap) {
  serve(lab::Answer{.endless = true});
  for (const bool wantsBody : {true, false}) {
    HTTPRequest request = get();
    request.wantsBody = wantsBody;
    const HTTPOutcome outcome = perform(request);
    ASSERT_TRUE(outcome.error);
    EXPECT_FALSE(outcome.response);
    EXPECT_EQ(outcome.error->code, CURLE_FILESIZE_EXCEEDED);
    EXPECT_THAT(outcome.error->description, HasSubstr("too large"));
  }
}

TEST_P(HTTPClientFaultTest, AnEndlessHeadIsCut) {
  std::string head = "HTTP/1.1 200 OK\r\n";
  while (head.size() < Transfer::mostHeaderBytes)
    head += "X-Filler: " + std::string(1000, 'x') + "\r\n";
  serve(lab::Answer{.raw = head + "\r\n"});
  EXPECT_EQ(codeOf(get()), CURLE_FILESIZE_EXCEEDED);
}

TEST_P(HTTPClientFaultTest, AnEndlessLineOfTheHeadIsCut) {
  serve(lab::Answer{.raw = "HTTP/1.1 200 OK\r\nX-Filler: " + std::string(1 << 20, 'x')});
  const HTTPOutcome outcome = perform(get());
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, CURLE_FILESIZE_EXCEEDED);
  EXPECT_THAT(outcome.error->description, HasSubstr("the head of the answer is too large"));
}

TEST_P(HTTPClientFaultTest, TheTimeOutHoldsForTheWholeExchange) {
  serve([](const lab::Request& request) {
    if (request.target == "/silent") return lab::Answer{.silent = true};
    return lab::Answer{.body = std::string(1000, 'd'), .drip = lab::Answer::Drip{1, 10ms}};
  });
  for (const char* target : {"/silent", "/drip"}) {
    HTTPRequest request = get(target);
    request.timeout = 100ms;
    const auto start = std::chrono::steady_clock::now();
    const HTTPOutcome outcome = perform(request);
    const auto taken = std::chrono::steady_clock::now() - start;
    ASSERT_TRUE(outcome.error) << target;
    EXPECT_EQ(outcome.error->code, CURLE_OPERATION_TIMEDOUT);
    EXPECT_GE(taken, 98ms);  // the library counts in whole milliseconds
    EXPECT_LT(taken, 9s);
  }
}

TEST_P(HTTPClientFaultTest, AnAnswerWithinTheTimeOutIsTaken) {
  serve(lab::Answer{.body = "late", .delay = 50ms});
  HTTPRequest request = get();
  request.timeout = 20s;
  EXPECT_EQ(perform(request).response->body, "late");
}

TEST_P(HTTPClientFaultTest, ConnectionsThatBreakAreErrors) {
  serve([](const lab::Request& request) {
    if (request.target == "/status") return lab::Answer{.cutHeadAfter = 10};
    if (request.target == "/head") return lab::Answer{.cutHeadAfter = 18};
    if (request.target == "/body") return lab::Answer{.body = "0123456789", .cutBodyAfter = 4};
    if (request.target == "/long")
      return lab::Answer{
          .headers = {{"Content-Length", "11"}}, .body = "0123456789", .hangUp = true};
    return lab::Answer{.cutHeadAfter = 0};
  });
  for (const char* target : {"/status", "/head", "/body", "/long", "/nothing"}) {
    const HTTPOutcome outcome = perform(get(target));
    ASSERT_TRUE(outcome.error) << target;
    EXPECT_FALSE(outcome.response);
    EXPECT_NE(outcome.error->code, 0);
    EXPECT_THAT(outcome.error->description,
                testing::StartsWith("127.0.0.1:" + std::to_string(server->port()) + ": "));
  }
  EXPECT_EQ(server->requestsReceived(), 5u) << "nothing is retried";
}

TEST_P(HTTPClientFaultTest, ALengthThatIsTooSmallCutsTheBody) {
  serve(lab::Answer{.headers = {{"Content-Length", "4"}}, .body = "0123456789"});
  EXPECT_EQ(perform(get()).response->body, "0123");
  // What is left over does not become the next answer.
  EXPECT_EQ(perform(get()).response->body, "0123");
}

TEST_P(HTTPClientFaultTest, WhatIsNotHTTPIsAnError) {
  serve(lab::Answer{.raw = "SSH-2.0-server\r\n\r\nmore"});
  EXPECT_NE(codeOf(get()), 0);
}

TEST_P(HTTPClientFaultTest, ServersThatDoNotSpeakAreErrors) {
  serve(lab::Answer{});
  for (const auto fault : {lab::ConnectionFault::hangUp, lab::ConnectionFault::garbage,
                           lab::ConnectionFault::neverSpeaks}) {
    server->setConnectionFault(fault);
    HTTPRequest request = post("x");
    request.timeout = 200ms;
    EXPECT_NE(codeOf(request), 0) << static_cast<int>(fault);
  }
  EXPECT_EQ(server->requestsReceived(), 0u);
}

TEST_P(HTTPClientFaultTest, ARefusedConnectionIsAnError) {
  serve(lab::Answer{});
  HTTPRequest request = get();
  server->stop();
  const HTTPOutcome outcome = perform(request);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, CURLE_COULDNT_CONNECT);
  EXPECT_THAT(outcome.error->description, HasSubstr("127.0.0.1"));
}

TEST_P(HTTPClientFaultTest, AnUnknownHostIsAnError) {
  const std::string scheme = GetParam() ? "https://" : "http://";
  // A label that is too long for the name service fails in the resolver, without a question to it.
  for (const std::string& host : {std::string("host.invalid"), std::string(64, 'x') + ".example"}) {
    const HTTPOutcome outcome = perform({.url = scheme + host + "/path?secret"});
    ASSERT_TRUE(outcome.error) << host;
    EXPECT_EQ(outcome.error->code, CURLE_COULDNT_RESOLVE_HOST);
    EXPECT_THAT(outcome.error->description, HasSubstr(host));
    EXPECT_THAT(outcome.error->description, testing::Not(HasSubstr("secret")));
  }
}

// A connection that the server has ended while it was not used.
TEST_P(HTTPClientFaultTest, AClosedConnectionIsReplacedWithoutSendingTwice) {
  serve([](const lab::Request& request) {
    lab::Answer answer{.body = request.body};
    answer.hangUp = true;
    return answer;
  });
  for (int i = 0; i < 10; ++i) {
    const HTTPOutcome outcome = perform(post("event"));
    ASSERT_TRUE(outcome.response) << outcome.error->description;
    EXPECT_TRUE(waitUntil([&] { return server->connectionsOpen() == 0; }));
  }
  EXPECT_EQ(server->requestsReceived(), 10u);
  EXPECT_EQ(server->connectionsAccepted(), 10u);
}

// The server takes the request on a connection that has served before, then closes it.
TEST_P(HTTPClientFaultTest, ARequestThatWasSentIsNeverSentAgain) {
  serve([](const lab::Request& request) {
    return request.body == "swallow" ? lab::Answer{.cutHeadAfter = 0} : lab::Answer{};
  });
  ASSERT_EQ(codeOf(post("fine")), 0);
  const HTTPOutcome outcome = perform(post("swallow"));
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, CURLE_GOT_NOTHING);
  EXPECT_EQ(server->requestsReceived(), 2u);
  EXPECT_EQ(codeOf(post("fine")), 0);
}

class TLSFaultTest : public HTTPClientFixture, public testing::Test {
 protected:
  TLSFaultTest() : HTTPClientFixture(true) {}

  HTTPOutcome performWith(const lab::TLSCertificate& certificate) {
    serve([](const lab::Request&) { return lab::Answer{}; }, {.tls = certificate});
    HTTPOutcome outcome = perform(post("secret"));
    EXPECT_EQ(server->requestsReceived(), 0u);
    return outcome;
  }
};

TEST_F(TLSFaultTest, AnExpiredCertificateIsRefused) {
  const HTTPOutcome outcome = performWith(identity->expired());
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_THAT(outcome.error->description, HasSubstr("expired"));
}

TEST_F(TLSFaultTest, AnotherHostsCertificateIsRefused) {
  const HTTPOutcome outcome = performWith(identity->wrongHost());
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, CURLE_PEER_FAILED_VERIFICATION);
}

TEST_F(TLSFaultTest, ASelfSignedCertificateIsRefused) {
  const HTTPOutcome outcome = performWith(identity->selfSigned());
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, CURLE_PEER_FAILED_VERIFICATION);
}

TEST_F(TLSFaultTest, TheSystemsAuthoritiesDoNotKnowAPrivateOne) {
  restartClient({});
  const HTTPOutcome outcome = performWith(identity->server());
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, CURLE_PEER_FAILED_VERIFICATION);
}

TEST_F(TLSFaultTest, AnotherAuthorityIsRefused) {
  const lab::TLSIdentity other(folder.path("other"));
  const HTTPOutcome outcome = performWith(other.server());
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, CURLE_PEER_FAILED_VERIFICATION);
}

TEST_F(TLSFaultTest, ACAFileThatCannotBeReadIsAnError) {
  restartClient({.caFile = folder.path("none.pem")});
  const HTTPOutcome outcome = performWith(identity->server());
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, CURLE_SSL_CACERT_BADFILE);
}

TEST_F(TLSFaultTest, AnotherAuthorityIsTrustedFromTheNextExchangeOn) {
  const lab::TLSIdentity other(folder.path("other"));
  serve([](const lab::Request&) { return lab::Answer{}; }, {.tls = identity->server()});
  EXPECT_EQ(codeOf(get()), 0);
  client->trust(other.caFile(), false);
  EXPECT_EQ(codeOf(get()), CURLE_PEER_FAILED_VERIFICATION) << "the kept connection is not used";
  client->trust(identity->caFile(), false);
  EXPECT_EQ(codeOf(get()), 0);
  client->trust(std::nullopt, false);
  EXPECT_EQ(codeOf(get()), CURLE_PEER_FAILED_VERIFICATION) << "the system knows nothing of the lab";
}

TEST_F(TLSFaultTest, TheSameFileIsReadAnewWhenItIsTrustedAgain) {
  const lab::TLSIdentity other(folder.path("other"));
  const std::string file = folder.write("trusted.pem", contentOf(identity->caFile()));
  restartClient({.caFile = file});
  serve([](const lab::Request&) { return lab::Answer{}; }, {.tls = identity->server()});
  EXPECT_EQ(codeOf(get()), 0);
  folder.write("trusted.pem", contentOf(other.caFile()));
  client->trust(file, false);
  EXPECT_EQ(codeOf(get()), CURLE_PEER_FAILED_VERIFICATION);
  folder.write("trusted.pem", contentOf(identity->caFile()));
  client->trust(file, false);
  EXPECT_EQ(codeOf(get()), 0);
}

TEST_F(TLSFaultTest, WhatIsUnderWayEndsAsItBegan) {
  const lab::TLSIdentity other(folder.path("other"));
  Notice notice;
  bool mayAnswer = false;
  serve(
      [&](const lab::Request&) {
        notice.await([&] { return mayAnswer; });
        return lab::Answer{};
      },
      {.tls = identity->server()});
  Outcomes outcomes;
  client->start(get(), outcomes.completion());
  ASSERT_TRUE(waitUntil([&] { return server->requestsReceived() == 1; }));
  client->trust(other.caFile(), false);
  EXPECT_EQ(codeOf(get()), CURLE_PEER_FAILED_VERIFICATION);
  notice.change([&] { mayAnswer = true; });
  ASSERT_TRUE(outcomes.waitFor(1));
  EXPECT_FALSE(outcomes.all().front().error);
}

TEST_F(TLSFaultTest, GarbageInsteadOfAHandshakeIsAnError) {
  serve([](const lab::Request&) { return lab::Answer{}; }, {.tls = identity->server()});
  server->setConnectionFault(lab::ConnectionFault::garbage);
  EXPECT_EQ(codeOf(get()), CURLE_SSL_CONNECT_ERROR);
}

TEST_F(TLSFaultTest, APlainServerGetsNoRequestWhereTLSIsMeant) {
  serve([](const lab::Request&) { return lab::Answer{}; }, {});
  HTTPRequest request = post("secret");
  request.url.replace(0, 4, "https");
  request.timeout = 200ms;
  EXPECT_NE(codeOf(request), 0);
  EXPECT_EQ(server->requestsReceived(), 0u);
}

TEST_F(TLSFaultTest, PlainHTTPIsRefusedUnlessAllowed) {
  serve([](const lab::Request&) { return lab::Answer{}; }, {});
  const HTTPOutcome outcome = perform(get());
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, CURLE_UNSUPPORTED_PROTOCOL);
  EXPECT_THAT(outcome.error->description, HasSubstr("plain http is not allowed"));
  EXPECT_EQ(server->connectionsAccepted(), 0u);

  CurlHTTPClient::Options options = defaultOptions();
  options.allowInsecureHTTP = true;
  restartClient(options);
  EXPECT_EQ(codeOf(get()), 0);

  client->trust(identity->caFile(), false);
  EXPECT_EQ(codeOf(get()), CURLE_UNSUPPORTED_PROTOCOL);
  client->trust(identity->caFile(), true);
  EXPECT_EQ(codeOf(get()), 0);
}

}  // namespace
}  // namespace corvid
