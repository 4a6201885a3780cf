// Clients that keep to no rule, on the real socket of the real daemon. Each loses its own
// connection at most; another client's events arrive all the same.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <list>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/Reading.h"
#include "base/Sanitizer.h"
#include "protocol/Limits.h"
#include "tests/e2e/ClientProcess.h"
#include "tests/e2e/LabFixture.h"
#include "tests/e2e/Limits.h"
#include "tests/rpc/RawMessages.h"
#include "tests/rpc/WireClient.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using capnp::rpc::Message;

constexpr std::string_view brokeARule = " broke a rule: ";

// fetchDisplayURL, and that its answer is no longer needed.
std::string callAndFinish(std::uint32_t question) {
  constexpr std::uint16_t fetchDisplayURL = 3;
  return call(question, fetchDisplayURL, [](capnp::rpc::Payload::Builder) {}) +
         envelope([&](Message::Builder m) {
           auto finish = m.initFinish();
           finish.setQuestionId(question);
           finish.setReleaseResultCaps(true);
         });
}

class ClientFaults : public LabFixture {
 protected:
  void SetUp() override {
    publish("lumen", storebagPostingTo(urlOf("events")));
    startDaemon();
    admitBystander();
  }
  std::string socketPath() const { return _root.path("run/corvidd/com.halcyon.corvidd"); }

  // The daemon ends a connection on which these bytes came, and says why.
  void expectClosed(std::string_view bytes, std::string_view rule) {
    SCOPED_TRACE(rule);
    const std::size_t before = timesLogged(brokeARule);
    RawClient client(socketPath());
    client.write(bytes);
    EXPECT_TRUE(client.awaitClosed());
    EXPECT_EQ(timesLogged(brokeARule), before + 1);
    EXPECT_EQ(timesLogged(rule), 1u) << _daemon->standardError();
    EXPECT_TRUE(bystanderReports());
  }
  // The same through the RPC library.
  void expectClosed(const std::function<void(WireClient&)>& misbehave, std::string_view rule) {
    SCOPED_TRACE(rule);
    const std::size_t before = timesLogged(rule);
    {
      WireClient client(socketPath());
      EXPECT_THROW(misbehave(client), kj::Exception);
      client.awaitClosed();
    }
    EXPECT_EQ(timesLogged(rule), before + 1) << _daemon->standardError();
    EXPECT_TRUE(bystanderReports());
  }
  void expectReports(TestClient& client, const std::string& mark) {
    EXPECT_EQ(client.send(mark).text(), "none");
    EXPECT_TRUE(waitUntil([&] { return arrivals(mark) == 1; })) << mark;
  }
  // The record of an event that somebody has sent with that mark.
  Dictionary recordOf(const std::string& mark) {
    EXPECT_TRUE(waitUntil([&] { return arrivals(mark) == 1; })) << mark;
    for (const Dictionary& record : records())
      if (const std::string* found = stringAt(record, "mark"); found && *found == mark)
        return record;
    return {};
  }
};

TEST_F(ClientFaults, WhatIsNoMessageEndsTheConnection) {
  expectClosed("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n", "a message of 542393672 segments");
  expectClosed(std::string(4096, '\xff'), "a message of 4294967296 segments");
  expectClosed(numbers({128, 0}), "a message of 129 segments");
  expectClosed(numbers({0, 0x7fffffff}), "a message of 17179869184 bytes");
  expectClosed(numbers({1, 0xffffffff, 0xffffffff, 0}), "a message of 68719476736 bytes");
  expectClosed(std::string(4096, '\0'), "a malformed message");
}

// Each would leave more than 2 KB behind.
TEST_F(ClientFaults, PromisesThatComeToThemselvesLeaveNothingBehind) {
  const std::string circle = envelope([](Message::Builder m) {
    auto resolve = m.initResolve();
    resolve.setPromiseId(0);
    resolve.initCap().setSenderPromise(0);
  });
  constexpr int connections = hasSanitizer ? 400 : 4000;
  const auto connectOften = [&](int times) {
    for (int i = 0; i < times; ++i) {
      RawClient client(socketPath());
      client.write(circle);
      shutdown(client.socket.get(), SHUT_WR);
      EXPECT_TRUE(client.awaitClosed());
    }
  };
  connectOften(100);
  const std::size_t before = _daemon->residentMemory();
  connectOften(connections);
  // A sanitizer keeps what is free for a while, and tells of leaks itself.
  if (!hasSanitizer) {
    EXPECT_LT(_daemon->residentMemory(), before + (std::size_t{4} << 20));
  }
  EXPECT_TRUE(bystanderReports());
}

TEST_F(ClientFaults, RandomBytesHurtNobody) {
  std::mt19937 generator(20);
  const auto random = [&](std::uint32_t limit) {
    return static_cast<std::uint32_t>(generator() % limit);
  };
  for (int i = 0; i < 100; ++i) {
    std::string bytes = i % 2 == 0 ? "" : bootstrap(0);
    for (std::uint32_t n = random(600); n > 0; --n) bytes.push_back(static_cast<char>(random(256)));
    // So that the daemon waits for no more.
    if (i % 4 == 1) bytes.replace(bootstrap(0).size(), 8, numbers({0, random(64)}));
    RawClient client(socketPath());
    client.write(bytes);
    shutdown(client.socket.get(), SHUT_WR);
    EXPECT_TRUE(client.awaitClosed());
  }
  EXPECT_TRUE(bystanderReports());
  EXPECT_EQ(timesLogged(" error corvidd["), 0u) << _daemon->standardError();
}

TEST_F(ClientFaults, AMessageThatEndsInTheMiddleIsAClientThatLeft) {
  const std::string message = bootstrap(0) + callAndFinish(1);
  for (std::size_t size = 0; size < message.size(); size += 3) {
    RawClient client(socketPath());
    client.write(message.substr(0, size));
    shutdown(client.socket.get(), SHUT_WR);
    EXPECT_TRUE(client.awaitClosed());
  }
  EXPECT_EQ(timesLogged(brokeARule), 0u);
  EXPECT_TRUE(bystanderReports());
}

TEST_F(ClientFaults, TextThatIsNoTextEndsTheConnection) {
  for (const Dictionary& payload :
       {Dictionary{{"text", "\xff\xfe"}}, Dictionary{{"\xc0\xaf", 1}},
        Dictionary{{"surrogate", "\xed\xa0\x80"}}, Dictionary{{"in", Array{"an array \x80"}}}})
    expectClosed([&](WireClient& client) { sendEvent(client, 7, 2, payload); },
                 "broke a rule: a text that is not UTF-8; closing the connection");
}

TEST_F(ClientFaults, MoreThanAMessageMayHoldEndsTheConnection) {
  Dictionary deep{{"bottom", true}};
  for (std::size_t i = 0; i < limits::valueNesting; ++i)
    deep = Dictionary{{"down", std::move(deep)}};
  expectClosed([&](WireClient& client) { sendEvent(client, 7, 2, deep); },
               "values nested deeper than 32");
  const Dictionary many{{"many", Array(limits::valuesPerMessage, Value(1))}};
  expectClosed([&](WireClient& client) { sendEvent(client, 7, 2, many); },
               "more than 65536 values in a message");
  const Dictionary large{{"large", Data{std::string(limits::messageBytes, 'x')}}};
  expectClosed([&](WireClient& client) { sendEvent(client, 7, 2, large); }, " bytes; closing");
  expectClosed(
      [](WireClient& client) {
        auto request = client.session.sendMessagesRequest();
        request.initMessages(limits::messagesPerCall + 1);
        request.send().wait(client.scope);
      },
      "257 events in a call");
}

TEST_F(ClientFaults, TheMemoryOfTheLargestMessagesIsGivenBack) {
  const Dictionary large{{"large", Data{std::string(limits::messageBytes - 4096, 'x')}}};
  for (int round = 0; round < 2; ++round) {
    std::vector<std::thread> clients;
    for (int i = 0; i < 6; ++i)
      clients.emplace_back([&] {
        WireClient client(socketPath());
        EXPECT_EQ(sendEvent(client, 7, 2, large), "none");
      });
    for (std::thread& client : clients) client.join();
  }
  EXPECT_TRUE(waitUntil([&] { return _daemon->residentMemory() < mostIdleMemory; }))
      << _daemon->residentMemory();
  EXPECT_TRUE(bystanderReports());
}

TEST_F(ClientFaults, NumbersBeyondTheirRangeAreCutAndHurtNobody) {
  constexpr double nan = std::numeric_limits<double>::quiet_NaN();
  constexpr double infinity = std::numeric_limits<double>::infinity();
  constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.clientType = 5}).text(), "httpPost");
  const auto methodOf = [&](const std::string& mark, const auto& category) {
    client::Dictionary payload, message;
    (void)payload.set("mark", std::string_view(mark));
    (void)message.set(kCorvidMessageParametersCategory, category);
    (void)message.set(kCorvidMessageParametersType, infinity);
    (void)message.set(kCorvidMessageParametersFlag, nan);
    (void)message.set(kCorvidMessageParametersPayload, payload);
    EXPECT_EQ(client.session().sendMessage(message), CORVID_OK);
    return integerAt(recordOf(mark), "_method");
  };
  EXPECT_EQ(methodOf("nan", nan), 0);
  EXPECT_EQ(methodOf("infinity", infinity), 0xffff);
  EXPECT_EQ(methodOf("minus infinity", -infinity), 0);
  EXPECT_EQ(methodOf("2^63", 9223372036854775808.0), 0xffff);
  EXPECT_EQ(methodOf("-1", -1), 0xffff);
  EXPECT_EQ(methodOf("least", least), 0);
  EXPECT_EQ(methodOf("70000", 70000), 70000 - 65536);

  for (const double number : {nan, infinity, -infinity, 1e300, -1.0}) {
    client::Dictionary info;
    (void)info.set(kCorvidSessionInfoClientType, number);
    (void)info.set(kCorvidSessionInfoClientVersion, number);
    (void)info.set(kCorvidSessionInfoSessionID, number);
    (void)info.set(kCorvidSessionInfoRequireUserInfo, number);
    (void)info.set(kCorvidSessionInfoBatchEvent, number);
    TestClient other(_root.path());
    EXPECT_EQ(other.session().setSessionInfo(info), CORVID_OK);
    TestClient::Outcome states;
    EXPECT_EQ(other.session().startConfig([&](client::Status, std::optional<client::Array> array) {
      states.set(array ? "some" : "none");
    }),
              CORVID_OK);
    EXPECT_EQ(states.text(), "none");
    EXPECT_TRUE(bystanderReports());
  }
  expectClosed(
      [&](WireClient& wire) {
        sendEvent(wire, 7, 2, Dictionary{{"when", Date{nan}}});
      },
      "a date that is no number");
}

// JSON cannot carry it, so its whole message is lost; the log says so, the next ones arrive.
TEST_F(ClientFaults, ANumberThatIsNoneCostsItsOwnBatch) {
  publish("orrery", storebagPostingTo(urlOf("events"), {{"expedite", 0}, {"event_threshold", 49}}));
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.clientType = 8, .batches = true}).text(), "httpPost");
  client::Dictionary payload;
  (void)payload.set("number", std::numeric_limits<double>::quiet_NaN());
  EXPECT_EQ(client.send("before").text(), "none");
  EXPECT_EQ(client.send(payload).text(), "none");
  EXPECT_EQ(client.flush().text(), "-1 Nothing to flush");
  EXPECT_EQ(timesLogged("a message of 3 events cannot be written as JSON and is lost"), 1u);
  EXPECT_EQ(client.send("after").text(), "none");
  EXPECT_EQ(client.flush().text(), "flushed");
  EXPECT_EQ(arrivals("after"), 1u);
  EXPECT_EQ(arrivals("before"), 0u);
  EXPECT_TRUE(bystanderReports());
}

TEST_F(ClientFaults, ANameThatCannotBeAHeaderLosesNoEvent) {
  TestClient client(_root.path());
  publish("orrery", storebagPostingTo(urlOf("events"), admitsEverybody()));
  ASSERT_EQ(client.configure({.clientType = 8, .clientName = "evil\r\nX-Injected: yes"}).text(),
            "httpPost");
  expectReports(client, "named");
  EXPECT_EQ(*stringAt(recordOf("named"), "_clientName"), "evil\r\nX-Injected: yes");
  const Dictionary& headers = *dictionaryAt(received().back(), "headers");
  EXPECT_EQ(*stringAt(headers, "X-CVD-Client-Name"), "evil  X-Injected: yes");
  EXPECT_FALSE(headers.contains("X-Injected"));
}

TEST_F(ClientFaults, CallsInTheWrongOrderAreAnsweredAndHarmless) {
  TestClient client(_root.path());
  EXPECT_EQ(client.send("too early").text(), "none");
  EXPECT_EQ(client.flush().text(), "-1 No backends available to send message");
  EXPECT_EQ(client.displayURL().text(), "URL not available");
  EXPECT_EQ(client.fetchStates(client::Session::none()).text(), "none");
  TestClient::Outcome started, finished;
  EXPECT_EQ(client.session().startConfig([&](client::Status, std::optional<client::Array> states) {
    started.set(states ? "some" : "none");
  }),
            CORVID_OK);
  EXPECT_EQ(started.text(), "none");
  EXPECT_EQ(client.session().finish([&](client::Status, std::optional<std::string> text) {
    finished.set(text.value_or("none"));
  }),
            CORVID_OK);
  EXPECT_EQ(finished.text(), "none");
  EXPECT_TRUE(bystanderReports());

  EXPECT_EQ(client.configure({.clientType = 5}).text(), "httpPost");
  expectReports(client, "configured");
  // The second description counts at the next start of the configuration.
  EXPECT_EQ(client.session().setSessionInfo(TestClient::sessionInfo({.clientType = 3})), CORVID_OK);
  expectReports(client, "described again");
  EXPECT_EQ(client.configure({.clientType = 5}).text(), "httpPost");
  expectReports(client, "started again");
  EXPECT_EQ(client.session().finish(), CORVID_OK);
  EXPECT_EQ(client.session().finish(), CORVID_OK);
  expectReports(client, "finished twice");
  EXPECT_EQ(arrivals("too early"), 0u);
  EXPECT_TRUE(bystanderReports());
}

TEST_F(ClientFaults, AClientThatDoesNotReadIsNotReadEither) {
  constexpr std::size_t mostBytes = std::size_t{64} << 20;
  RawClient client(socketPath());
  ASSERT_TRUE(client.write(bootstrap(0)));
  const timeval bound{0, 300'000};
  setsockopt(client.socket.get(), SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
  std::size_t written = 0;
  for (std::uint32_t question = 1; written < mostBytes; ++question) {
    const std::string bytes = callAndFinish(question);
    if (!client.write(bytes)) break;
    written += bytes.size();
  }
  EXPECT_LT(written, mostBytes);
  EXPECT_LT(_daemon->peakMemory(), mostMemory);
  EXPECT_TRUE(bystanderReports());
  EXPECT_EQ(timesLogged(brokeARule), 0u);
}

// A process that is killed, with events in a batch that nobody will flush any more.
TEST_F(ClientFaults, TheEventsOfAClientThatWasKilledArrive) {
  publish("orrery", storebagPostingTo(urlOf("events"), {{"expedite", 0}, {"event_threshold", 49}}));
  ClientProcess client(_root.path());
  client.call(
      {{"call", "setSessionInfo"},
       {"sessionInfo", Dictionary{{"ClientType", 8}, {"SessionID", 9}, {"BatchEvent", true}}}});
  const Dictionary started = client.call({{"call", "startConfig"}});
  EXPECT_EQ(arrayAt(started, "states")->size(), 1u);
  client.call({{"call", "sendMessage"},
               {"category", 7},
               {"type", 2},
               {"payload", Dictionary{{"mark", "held"}}}});
  EXPECT_EQ(arrivals("held"), 0u);
  client.kill();
  EXPECT_TRUE(waitUntil([&] { return arrivals("held") == 1; }));
  EXPECT_EQ(*stringAt(records().back(), "StorebagVersion"), "7");  // the end message
  EXPECT_TRUE(bystanderReports());
}

TEST_F(ClientFaults, AClientMayGoInTheMiddleOfACall) {
  const std::size_t before = _daemon->descriptors();
  plan("storebags", {{"delay", 0.3}});
  {
    WireClient client(socketPath());
    auto info = client.session.setSessionInfoRequest();
    fill(info.initSessionInfo(1), Dictionary{{"ClientType", 9}});
    info.send().wait(client.scope);
    auto start = client.session.startConfigRequest();
    start.setReplyWanted(true);
    const auto states = start.send();
    client.scope.poll();  // sends it
    ASSERT_TRUE(_daemon->waitForLog("Fetching storebag for client type 9"));
  }
  EXPECT_TRUE(bystanderReports());
  EXPECT_TRUE(_daemon->waitForLog("listener: IPC connection to <CorviddSession: 0 "));
  // One more stays: the connection to the storebag server.
  EXPECT_TRUE(waitUntil([&] { return _daemon->descriptors() <= before + 1; }));
}

TEST_F(ClientFaults, TwoHundredClientsComeAndGoWithoutALeak) {
  const std::size_t before = _daemon->descriptors();
  for (int i = 0; i < 200; ++i) {
    if (i % 4 == 0) {
      WireClient client(socketPath());
      EXPECT_EQ(sendEvent(client, 7, 2), "none");
    } else {
      const RawClient client(socketPath());
    }
  }
  EXPECT_TRUE(waitUntil([&] { return _daemon->descriptors() <= before; }))
      << _daemon->descriptors();
  EXPECT_TRUE(bystanderReports());
}

TEST_F(ClientFaults, OneConnectionTooManyIsClosedAndTheOthersStay) {
  const std::size_t before = _daemon->descriptors();
  std::list<RawClient> clients;
  while (clients.size() + 1 < limits::connectionsPerUser) clients.emplace_back(socketPath());
  ASSERT_TRUE(waitUntil([&] {
    return timesLogged("listener: Accepting new IPC connection") == limits::connectionsPerUser;
  }));
  RawClient oneTooMany(socketPath());
  EXPECT_TRUE(oneTooMany.awaitClosed());
  EXPECT_EQ(timesLogged("opened more than 256 connections of one user; closing it"), 1u);
  EXPECT_TRUE(bystanderReports());
  clients.clear();
  EXPECT_TRUE(waitUntil([&] { return _daemon->descriptors() <= before; }))
      << _daemon->descriptors();
  TestClient again(_root.path());
  EXPECT_EQ(again.configure({.clientType = 5}).text(), "httpPost");
  expectReports(again, "again");
}

}  // namespace
}  // namespace corvid
