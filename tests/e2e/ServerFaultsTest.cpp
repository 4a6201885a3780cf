// Collectors that misbehave. A client learns from a flush what became of its events, the log says
// it in one line an exchange, and nobody else notices.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "platform/data/Crypto.h"
#include "tests/e2e/LabFixture.h"
#include "tests/e2e/Limits.h"
#include "tests/support/Waiting.h"
#include "tools/lab/HTTPServer.h"

namespace corvid {
namespace {

using lab::Answer;
using lab::ConnectionFault;
using lab::HTTPServer;
using lab::Request;
using testing::AnyOf;
using testing::HasSubstr;

constexpr std::string_view postError = "HTTPSPostBackend(postJsonMessage): post error: ";

std::string randomBytes(std::size_t size) {
  std::mt19937 random(1);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

class ServerFaults : public LabFixture {
 protected:
  void SetUp() override {
    startDaemon();
    admitBystander();
  }

  // Puts a server in the place of the one before: another one at the same address.
  void serve(std::function<Answer(Answer)> fault, const lab::TLSCertificate& certificate,
             ConnectionFault connectionFault = ConnectionFault::none) {
    stopServing();
    _server = std::make_unique<HTTPServer>(
        [this, fault = std::move(fault)](const Request& request) {
          return fault(_collectors.events("own", request));
        },
        HTTPServer::Options{certificate, _port});
    _server->setConnectionFault(connectionFault);
    _port = _server->port();
  }
  void serveWell() {
    serve([](Answer answer) { return answer; }, _identity.server());
  }
  void serveAnswers(std::function<Answer(Answer)> fault) {
    serve(std::move(fault), _identity.server());
  }
  void serveConnections(ConnectionFault fault) {
    serve([](Answer answer) { return answer; }, _identity.server(), fault);
  }
  void serveWith(const lab::TLSCertificate& certificate) {
    serve([](Answer answer) { return answer; }, certificate);
  }
  void stopServing() { _server.reset(); }

  std::string url() const { return fmt::format("https://localhost:{}/events", _port); }
  std::string host() const { return fmt::format("localhost:{}", _port); }

  // A client that reports to the server, and whose start message has arrived there. It batches, so
  // that a flush tells what becomes of its events.
  void admitClient() {
    serveWell();
    publish("lumen", storebagPostingTo(url(), {{"expedite", 0}, {"event_threshold", 49}}));
    ASSERT_EQ(_client.configure({.clientType = 5, .batches = true}).text(), "httpPost");
    ASSERT_EQ(_client.flush().text(), "flushed");
  }
  // As admitClient, and each event is posted at once: the first has arrived as well.
  void admitClientWithoutBatches() {
    serveWell();
    publish("lumen", storebagPostingTo(url()));
    ASSERT_EQ(_client.configure({.clientType = 5}).text(), "httpPost");
    ASSERT_EQ(_client.send("first").text(), "none");
    // The start message and the event: neither is to meet the fault that comes next.
    ASSERT_TRUE(waitUntil([&] { return _server->requestsAnswered() == 2; }));
  }
  // The error of a flush with one event, which the log has as well; without code and host.
  std::string flushError() {
    const std::size_t before = timesLogged(postError);
    const std::string mark = fmt::format("lost {}", ++_sent);
    EXPECT_EQ(_client.send(mark).text(), "none");
    const std::string told = _client.flush().text();
    EXPECT_TRUE(bystanderReports());
    const std::string::size_type space = told.find(' ');
    const std::string description = told.substr(space + 1);
    EXPECT_EQ(timesLogged(postError), before + 1);
    EXPECT_GE(timesLogged(fmt::format("{}{}\n", postError, description)), 1u) << description;
    EXPECT_TRUE(description.starts_with(host() + ": ")) << description;
    return description.substr(std::min(description.size(), host().size() + 2));
  }
  // A flush with one event, which arrives.
  void expectReports() {
    const std::string mark = fmt::format("taken {}", ++_sent);
    EXPECT_EQ(_client.send(mark).text(), "none");
    EXPECT_EQ(_client.flush().text(), "flushed");
    EXPECT_EQ(arrivals(mark), 1u);
  }

  const lab::TLSIdentity _identity{_lab.root().tlsFolder()};
  lab::ReceivedLog _log{_lab.root().receivedFile()};
  const lab::Collectors _collectors{_log};
  std::unique_ptr<HTTPServer> _server;
  std::uint16_t _port = 0;
  TestClient _client{_root.path()};

 private:
  int _sent = 0;
};

TEST_F(ServerFaults, WithoutTrustNothingIsPosted) {
  admitClient();
  const lab::TLSIdentity stranger(_root.path("stranger"));
  for (const auto& [certificate, reason] :
       {std::pair(stranger.server(), "unable to get local issuer certificate"),
        std::pair(_identity.selfSigned(), "self-signed certificate"),
        std::pair(_identity.expired(), "certificate has expired"),
        std::pair(_identity.wrongHost(), "no alternative certificate subject name matches")}) {
    serveWith(certificate);
    EXPECT_THAT(flushError(), HasSubstr(reason));
    EXPECT_EQ(_server->requestsReceived(), 0u);
  }
  serveWell();
  expectReports();
  for (int i = 1; i <= 4; ++i) EXPECT_EQ(arrivals(fmt::format("lost {}", i)), 0u);
}

TEST_F(ServerFaults, BrokenConnectionsAreErrorsOfTheFlush) {
  admitClient();
  serveConnections(ConnectionFault::hangUp);
  // libcurl's words, which differ by release.
  EXPECT_THAT(flushError(), AnyOf(HasSubstr("SSL_connect"), HasSubstr("Broken pipe")));
  serveConnections(ConnectionFault::resets);
  EXPECT_THAT(flushError(), HasSubstr("Connection reset by peer"));
  serveConnections(ConnectionFault::garbage);
  EXPECT_THAT(flushError(), HasSubstr("wrong version number"));
  stopServing();
  EXPECT_THAT(flushError(), HasSubstr("Failed to connect"));
  serveWell();
  expectReports();
  for (int i = 1; i <= 4; ++i) EXPECT_EQ(arrivals(fmt::format("lost {}", i)), 0u);
}

TEST_F(ServerFaults, BrokenAnswersAreErrorsOfTheFlushThoughTheEventsArrived) {
  admitClient();
  serveAnswers([](Answer) { return Answer{.body = "0123456789", .cutHeadAfter = 9}; });
  EXPECT_NE(flushError(), "");
  serveAnswers([](Answer) { return Answer{.body = "0123456789", .cutHeadAfter = 20}; });
  EXPECT_NE(flushError(), "");
  serveAnswers([](Answer) { return Answer{.body = "0123456789", .cutBodyAfter = 5}; });
  EXPECT_THAT(flushError(), AnyOf(HasSubstr("5 bytes remaining"), HasSubstr("unexpected eof")));
  serveAnswers([](Answer) { return Answer{.raw = "I am no server\r\n\r\n"}; });
  EXPECT_THAT(flushError(), HasSubstr("HTTP/0.9"));
  serveAnswers([](Answer) { return Answer{.raw = ""}; });
  EXPECT_NE(flushError(), "");
  serveWell();
  expectReports();
  for (int i = 1; i <= 5; ++i) EXPECT_EQ(arrivals(fmt::format("lost {}", i)), 1u);
}

TEST_F(ServerFaults, AHugeAnswerIsCutWithinBoundedMemory) {
  admitClient();
  serveAnswers([](Answer) { return Answer{.endless = true}; });
  EXPECT_EQ(flushError(), "the answer is too large");
  serveAnswers([](Answer) { return Answer{.body = std::string(std::size_t{64} << 20, 'x')}; });
  EXPECT_EQ(flushError(), "the answer is too large");
  serveAnswers([](Answer) {
    return Answer{.headers = {{"X-Filler", std::string(std::size_t{1} << 20, 'x')}}};
  });
  EXPECT_EQ(flushError(), "the head of the answer is too large");
  EXPECT_LT(_daemon->peakMemory(), mostMemory);
  serveWell();
  expectReports();
}

TEST_F(ServerFaults, WhatAnAnswerSaysDoesNotMatter) {
  admitClient();
  for (const int status : {204, 304, 400, 404, 429, 499, 600}) {
    SCOPED_TRACE(status);
    serveAnswers([status](Answer) { return Answer{.status = status}; });
    expectReports();
  }
  HTTPServer elsewhere([](const Request&) { return Answer{}; }, {_identity.server()});
  serveAnswers([&](Answer) { return Answer::redirect(elsewhere.url("/events"), 307); });
  expectReports();
  EXPECT_EQ(elsewhere.connectionsAccepted(), 0u);
  EXPECT_EQ(timesLogged(postError), 0u);
}

TEST_F(ServerFaults, AServerErrorSwitchesItsOwnClientOffOnly) {
  admitClient();
  serveAnswers([](Answer) { return Answer{.status = 599}; });
  EXPECT_EQ(_client.send("answered 599").text(), "none");
  EXPECT_EQ(_client.flush().text(), "599 backend httpPost disabled by server 599 return code");
  EXPECT_EQ(timesLogged("postJSONMessage: backend httpPost disabled by server 599 return code"),
            1u);
  serveWell();
  EXPECT_EQ(_client.send("dropped").text(), "none");
  EXPECT_EQ(_client.flush().text(), "-1 Nothing to flush");
  EXPECT_TRUE(bystanderReports());
  EXPECT_EQ(arrivals("answered 599"), 1u);
  EXPECT_EQ(arrivals("dropped"), 0u);
  // A new configuration computes the state anew.
  EXPECT_EQ(_client.configure({.clientType = 5, .batches = true}).text(), "httpPost");
  expectReports();
}

TEST_F(ServerFaults, ASlowAnswerHoldsUpItsOwnFlushOnly) {
  admitClient();
  serveAnswers([](Answer) {
    return Answer{.body = std::string(40, 'x'),
                  .delay = std::chrono::milliseconds(300),
                  .drip = Answer::Drip{1, std::chrono::milliseconds(5)}};
  });
  EXPECT_EQ(_client.send("slow").text(), "none");
  const TestClient::Outcome flushed = _client.flush();
  ASSERT_TRUE(waitUntil([&] { return arrivals("slow") == 1; }));
  EXPECT_TRUE(bystanderReports());
  EXPECT_EQ(flushed.text(), "flushed");
}

// Together they have more for the server than may wait for it.
TEST_F(ServerFaults, ManyClientsOfAStalledServerWaitAndLoseNothing) {
  constexpr std::size_t clients = 48, events = 16;
  std::promise<void> release;
  serveAnswers([released = release.get_future().share()](Answer answer) {
    released.wait();
    return answer;
  });
  publish("lumen", storebagPostingTo(url()));
  client::Dictionary payload;
  (void)payload.set("filler", std::string_view(base64Encode(randomBytes(std::size_t{15} << 10))));
  std::list<TestClient> all;
  for (std::size_t i = 0; i < clients; ++i) {
    TestClient& client = all.emplace_back(_root.path());
    ASSERT_EQ(client.configure({.clientType = 5}).text(), "httpPost");
  }
  for (TestClient& client : all)
    for (std::size_t n = 0; n < events; ++n) client.send(payload);
  ASSERT_TRUE(waitUntil([&] { return _server->requestsReceived() == 8; }));
  EXPECT_TRUE(bystanderReports());
  release.set_value();
  // Each has sent a start message too.
  EXPECT_TRUE(waitUntil([&] { return _server->requestsReceived() == clients * (events + 1); }))
      << _server->requestsReceived();
  EXPECT_EQ(timesLogged(postError), 0u);
}

// The client waits once so many exchanges are under way, and nothing is lost or said of it while
// they may still succeed.
class ServerThatNeverAnswers : public ServerFaults, public testing::WithParamInterface<bool> {
 protected:
  void stall() {
    if (GetParam())
      serveConnections(ConnectionFault::neverSpeaks);
    else
      serveAnswers([](Answer) { return Answer{.silent = true}; });
  }
};
INSTANTIATE_TEST_SUITE_P(Stalls, ServerThatNeverAnswers, testing::Bool(), [](const auto& test) {
  return test.param ? "TheHandshake" : "TheAnswer";
});

TEST_P(ServerThatNeverAnswers, HoldsBackNeitherItsOwnClientNorOthers) {
  constexpr std::size_t events = 100;
  admitClientWithoutBatches();
  stall();
  std::vector<TestClient::Outcome> sent;
  for (std::size_t i = 0; i < events; ++i) sent.push_back(_client.send(fmt::format("event {}", i)));
  // As many as a host is given.
  ASSERT_TRUE(waitUntil([&] { return _server->connectionsOpen() == 8; }));
  EXPECT_TRUE(bystanderReports());
  EXPECT_TRUE(waitUntil([&] { return sent.back().isThere(); })) << "before its exchange has ended";
  EXPECT_EQ(timesLogged(postError), 0u);
  EXPECT_LT(_daemon->peakMemory(), mostMemory);
  stopServing();
  for (const auto& outcome : sent) EXPECT_EQ(outcome.text(), "none");
  EXPECT_TRUE(waitUntil([&] { return timesLogged(postError) == events; }))
      << timesLogged(postError);
  EXPECT_TRUE(bystanderReports());
  serveWell();
  EXPECT_EQ(_client.send("again").text(), "none");
  EXPECT_TRUE(waitUntil([&] { return arrivals("again") == 1; }));
}

}  // namespace
}  // namespace corvid
