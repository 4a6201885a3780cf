// What a client that keeps to no rule can do: lose its own connection, with one log line.
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "base/LittleEndian.h"
#include "base/LogPace.h"
#include "protocol/Limits.h"
#include "tests/rpc/RawMessages.h"
#include "tests/rpc/ServiceFixture.h"
#include "tests/rpc/WireClient.h"

namespace corvid {
namespace {

using capnp::rpc::Message;

class Limits : public ServiceFixture {
 protected:
  void SetUp() override {
    start();
    bystander = std::make_unique<WireClient>(path);
    EXPECT_EQ(sendEvent(*bystander, 1, 1), "sent 1");
  }
  void TearDown() override {
    bystander = nullptr;
    ServiceFixture::TearDown();
  }

  // The one warning after another client broke a rule, without what names the client.
  std::string onlyWarning() {
    EXPECT_TRUE(delegate->awaitInvalidated(delegate->accepted.size() - 1));
    const auto warnings = log.texts(LogLevel::warning);
    EXPECT_EQ(warnings.size(), 1u);
    EXPECT_TRUE(log.texts(LogLevel::error).empty());
    if (warnings.empty()) return {};
    std::string line = warnings.back();
    log.clear();
    const std::string start = "IPCConnection: connection ";
    EXPECT_EQ(line.substr(0, start.size()), start);
    const std::string end = "; closing the connection";
    EXPECT_TRUE(line.ends_with(end)) << line;
    const std::size_t rule = line.find(" broke a rule: ");
    EXPECT_NE(rule, std::string::npos) << line;
    line.resize(line.size() - end.size());
    return line.substr(rule + std::strlen(" broke a rule: "));
  }
  // Writes bytes as another client, which must lose its connection; gives the rule.
  std::string ruleAgainst(const std::string& bytes) {
    RawClient raw(path);
    raw.write(bytes);
    EXPECT_TRUE(raw.awaitClosed());
    const std::string rule = onlyWarning();
    EXPECT_EQ(sendEvent(*bystander, 2, 2), "sent 2");
    return rule;
  }
  // The same through the RPC library: `misbehave` must end in a lost connection.
  std::string ruleAgainst(const std::function<void(WireClient&)>& misbehave) {
    std::string rule;
    std::thread other([&] {
      WireClient client(path);
      EXPECT_THROW(misbehave(client), kj::Exception);
      client.awaitClosed();
      rule = onlyWarning();
    });
    other.join();
    EXPECT_EQ(sendEvent(*bystander, 3, 3), "sent 3");
    return rule;
  }

  std::unique_ptr<WireClient> bystander;
};

Dictionary nested(std::size_t depth) {
  Dictionary dictionary{{"bottom", true}};
  for (std::size_t i = 1; i < depth; ++i) dictionary = Dictionary{{"down", std::move(dictionary)}};
  return dictionary;
}

TEST_F(Limits, AMessageOfTooManySegments) {
  EXPECT_EQ(ruleAgainst(numbers({128, 0})), "a message of 129 segments");
  EXPECT_EQ(ruleAgainst(numbers({0xffffffff, 0})), "a message of 4294967296 segments");
}

TEST_F(Limits, AMessageThatIsTooLarge) {
  EXPECT_EQ(ruleAgainst(numbers({0, limits::messageBytes / 8})), "a message of 16777224 bytes");
}

TEST_F(Limits, AMessageAsLargeAsTheLimitIsTaken) {
  const Dictionary payload{{"data", Data{std::string(limits::messageBytes - 4096, 'x')}}};
  EXPECT_EQ(sendEvent(*bystander, 9, 9, payload), "sent 9");
  EXPECT_EQ(delegate->at(0).session->calls().back().payload, payload);
}

TEST_F(Limits, ValuesNestedTooDeep) {
  EXPECT_EQ(sendEvent(*bystander, 8, 8, nested(limits::valueNesting)), "sent 8");
  EXPECT_EQ(ruleAgainst([](WireClient& client) {
              sendEvent(client, 1, 1, nested(limits::valueNesting + 1));
            }),
            "values nested deeper than 32");
}

TEST_F(Limits, TooManyValues) {
  EXPECT_EQ(sendEvent(*bystander, 8, 8, Dictionary{{"a", Array(limits::valuesPerMessage - 1)}}),
            "sent 8");
  EXPECT_EQ(ruleAgainst([](WireClient& client) {
              sendEvent(client, 1, 1, Dictionary{{"a", Array(limits::valuesPerMessage)}});
            }),
            "more than 65536 values in a message");
}

TEST_F(Limits, TooManyEventsInACall) {
  EXPECT_EQ(ruleAgainst([](WireClient& client) {
              auto request = client.session.sendMessagesRequest();
              request.initMessages(static_cast<capnp::uint>(limits::messagesPerCall + 1));
              request.send().wait(client.scope);
            }),
            "257 events in a call");
}

// Of infos with one entry, so that they take so many bytes together.
Dictionary infoOf(std::size_t bytes) {
  return {{"filling", Data{std::string(bytes - 6 * sizeof(capnp::word), 'x')}}};
}

TEST_F(Limits, InfosThatTakeMoreThanASessionKeeps) {
  const auto setSessionInfo = [](WireClient& client, std::size_t bytes) {
    auto request = client.session.setSessionInfoRequest();
    fill(request.initSessionInfo(1), infoOf(bytes / 2));
    fill(request.initUserInfo(1), infoOf(bytes / 4));
    wire::encode(Array{Value(infoOf(bytes / 4 - 5 * sizeof(capnp::word)))},
                 request.initFrameworksToCheck(1));
    request.send().wait(client.scope);
  };
  const auto fetchStates = [](WireClient& client, std::size_t bytes) {
    auto request = client.session.fetchStatesRequest();
    fill(request.initUserInfo(1), infoOf(bytes));
    request.send().wait(client.scope);
  };
  const auto sendSingleMessage = [](WireClient& client, std::size_t bytes) {
    auto request = client.session.sendSingleMessageRequest();
    fill(request.initSessionInfo(1), infoOf(bytes / 2));
    fill(request.initUserInfo(1), infoOf(bytes / 2));
    fill(request.initPayload(1), infoOf(2 * limits::sessionInfoBytes));
    request.send().wait(client.scope);
  };
  const std::vector<std::function<void(WireClient&, std::size_t)>> calls{
      setSessionInfo, fetchStates, sendSingleMessage};
  for (const auto& infosTake : calls) {
    infosTake(*bystander, limits::sessionInfoBytes);
    EXPECT_EQ(ruleAgainst([&](WireClient& client) {
                infosTake(client, limits::sessionInfoBytes + 4 * sizeof(capnp::word));
              }),
              "infos of 262176 bytes");
  }
}

TEST_F(Limits, AFileURLThatIsLongerThanAnyPath) {
  const auto upload = [](WireClient& client, std::size_t bytes) {
    auto request = client.session.uploadFileRequest();
    request.setFileURL(std::string(bytes, 'x'));
    request.send().wait(client.scope);
  };
  upload(*bystander, limits::fileURLBytes);
  EXPECT_EQ(ruleAgainst([&](WireClient& client) { upload(client, limits::fileURLBytes + 1); }),
            "a file URL of 16385 bytes");
}

TEST_F(Limits, ATextThatIsNotUTF8) {
  EXPECT_EQ(ruleAgainst([](WireClient& client) {
              sendEvent(client, 1, 1, Dictionary{{"text", "\xff\xfe"}});
            }),
            "a text that is not UTF-8");
  EXPECT_EQ(ruleAgainst([](WireClient& client) {
              auto request = client.session.uploadFileRequest();
              request.setFileURL("file:///\xc3");
              request.send().wait(client.scope);
            }),
            "a text that is not UTF-8");
}

TEST_F(Limits, ADateThatIsNoNumber) {
  EXPECT_EQ(ruleAgainst([](WireClient& client) {
              sendEvent(client, 1, 1, Dictionary{{"date", Date{-1e308 * 10}}});
            }),
            "a date that is no number");
}

TEST_F(Limits, TheEventsBeforeTheBreachHaveRun) {
  EXPECT_EQ(ruleAgainst([](WireClient& client) {
              auto request = client.session.sendMessagesRequest();
              auto messages = request.initMessages(3);
              messages[0].initEvent().setCategory(100);
              fill(messages[1].initEvent().initPayload(1), Dictionary{{"text", "\xff"}});
              messages[2].initEvent().setCategory(102);
              request.send().wait(client.scope);
            }),
            "a text that is not UTF-8");
  const auto calls = delegate->at(1).session->calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].category, 100);
}

TEST_F(Limits, AMessageWithTooManyCapabilities) {
  const std::string breach = bootstrap(0) + call(1, 4, [](capnp::rpc::Payload::Builder parameters) {
                               auto table = parameters.initCapTable(
                                   static_cast<capnp::uint>(limits::capabilitiesPerMessage + 1));
                               for (capnp::uint i = 0; i < table.size(); ++i)
                                 table[i].setSenderHosted(i);
                             });
  EXPECT_EQ(ruleAgainst(breach), "a message with 5 capabilities");
}

TEST_F(Limits, TooManyUnfinishedCalls) {
  std::string calls = bootstrap(0);
  for (std::uint32_t i = 1; i <= limits::unfinishedCalls; ++i) calls += call(i, 3, [](auto) {});
  EXPECT_EQ(ruleAgainst(calls), "more than 1024 unfinished calls");
}

TEST_F(Limits, TooManyUnfinishedCallsBesideOneThatIsFinishedAgainAndAgain) {
  constexpr std::uint16_t flush = 5;
  std::vector<FlushReply> held;
  delegate->onSession = [&](RecordingSession& session, auto&) {
    session.onFlush = [&](FlushReply reply) { held.push_back(std::move(reply)); };
  };
  const std::string finish = envelope([](Message::Builder m) { m.initFinish().setQuestionId(1); });
  std::string calls =
      bootstrap(0) + call(1, flush, [](capnp::rpc::Payload::Builder parameters) {
        parameters.getContent().initAs<wire::ClientSession::FlushParams>().setReplyWanted(true);
      });
  for (std::uint32_t i = 2; i <= limits::unfinishedCalls + 1; ++i)
    calls += call(i, 3, [](auto) {}) + finish;
  EXPECT_EQ(ruleAgainst(calls), "more than 1024 unfinished calls");
}

TEST_F(Limits, ACallWhoseAnswerIsToBeKeptForAnother) {
  const std::string kept = envelope([](Message::Builder m) {
    auto call = m.initCall();
    call.setQuestionId(1);
    call.initTarget().setImportedCap(0);
    call.setInterfaceId(capnp::typeId<wire::ClientSession>());
    call.setMethodId(3);
    call.getSendResultsTo().setYourself();
  });
  EXPECT_EQ(ruleAgainst(bootstrap(0) + kept), "a call whose answer is not for its caller");
}

TEST_F(Limits, APromiseThatComesToItself) {
  const std::string circle = envelope([](Message::Builder m) {
    auto resolve = m.initResolve();
    resolve.setPromiseId(3);
    resolve.initCap().setSenderPromise(3);
  });
  EXPECT_EQ(ruleAgainst(bootstrap(0) + circle), "a promise that comes to another promise");
}

TEST_F(Limits, ACallOfAnObjectThatIsNotThere) {
  const std::string rule = ruleAgainst(
      envelope([](Message::Builder m) { m.initCall().initTarget().setImportedCap(17); }));
  EXPECT_EQ(rule.substr(0, 24), "a message out of place (") << rule;
}

TEST_F(Limits, AnAnswerThatNobodyAskedFor) {
  const std::string rule =
      ruleAgainst(envelope([](Message::Builder m) { m.initReturn().setAnswerId(5); }));
  EXPECT_EQ(rule.substr(0, 24), "a message out of place (") << rule;
}

TEST_F(Limits, AQuestionNumberInUse) {
  const std::string rule = ruleAgainst(bootstrap(0) + bootstrap(0));
  EXPECT_EQ(rule.substr(0, 24), "a message out of place (") << rule;
}

TEST_F(Limits, PointersThatLeadOutOfTheMessage) {
  // One segment of one word: a structure pointer far past the end.
  EXPECT_NE(ruleAgainst(numbers({0, 1, 0x7ffffff0, 0xffff})).find("a malformed message ("),
            std::string::npos);
  // A far pointer into a segment that is not there.
  EXPECT_NE(ruleAgainst(numbers({0, 1, 0x00000002, 0x00000007})).find("a malformed message ("),
            std::string::npos);
}

TEST_F(Limits, PointersThatLeadInACircle) {
  std::string circular = call(1, 4, [](capnp::rpc::Payload::Builder parameters) {
    auto sent = parameters.getContent().initAs<wire::ClientSession::SendMessagesParams>();
    sent.initMessages(1)[0].initEvent().initPayload(1)[0].initDictionary(1)[0].setText("x");
  });
  // The last pointer to a list of one value is that of the inner dictionary. It is the third word
  // of the outer list's element; led four words back, the dictionary is an entry of itself.
  bool changed = false;
  for (std::size_t at = circular.size() - 8; at > 16 && !changed; at -= 8) {
    const auto word = loadLittle<std::uint64_t>(circular.data() + at);
    if ((word & 3) != 1 || (word >> 32) != (4 << 3 | 7)) continue;
    storeLittle(circular.data() + at, static_cast<std::uint32_t>(-4) << 2 | 1);
    changed = true;
  }
  ASSERT_TRUE(changed);
  const std::string rule = ruleAgainst(bootstrap(0) + circular);
  EXPECT_TRUE(rule.starts_with("a malformed message (") || rule == "values nested deeper than 32")
      << rule;
}

TEST_F(Limits, ATruncatedMessageIsAClientThatLeft) {
  {
    RawClient raw(path);
    const std::string message = bootstrap(0);
    raw.write(message.substr(0, message.size() - 3));
  }
  ASSERT_TRUE(delegate->awaitInvalidated(1));
  EXPECT_TRUE(log.texts(LogLevel::warning).empty());
  EXPECT_TRUE(log.texts(LogLevel::error).empty());
}

TEST_F(Limits, RandomBytesHurtNobodyElse) {
  std::mt19937 random(20261120);
  std::string valid =
      bootstrap(0) + call(1, 4, [](capnp::rpc::Payload::Builder parameters) {
        auto sent = parameters.getContent().initAs<wire::ClientSession::SendMessagesParams>();
        auto message = sent.initMessages(1)[0];
        message.setReplyWanted(true);
        fill(message.initEvent().initPayload(2), Dictionary{{"a", "b"}, {"c", Array{1, 2, 3}}});
      });
  for (int round = 0; round < 150; ++round) {
    RawClient raw(path);
    std::string bytes(1 + random() % 300, '\0');
    if (round % 3 == 0) {
      for (char& byte : bytes) byte = static_cast<char>(random());
    } else {
      bytes = valid;
      for (int flips = 0; flips < 1 + round % 7; ++flips)
        bytes[random() % bytes.size()] = static_cast<char>(random());
    }
    raw.write(bytes);
    shutdown(raw.socket.get(), SHUT_WR);
    EXPECT_TRUE(raw.awaitClosed());
  }
  EXPECT_TRUE(delegate->awaitInvalidated(150));
  EXPECT_EQ(sendEvent(*bystander, 5, 5), "sent 5");
  // At most one line for each that was cut off, and nothing went wrong inside.
  EXPECT_LE(log.texts(LogLevel::warning).size(), 150u);
  EXPECT_TRUE(log.texts(LogLevel::error).empty());
}

TEST_F(Limits, ManyBreachesOfOneUserAreCounted) {
  for (int i = 0; i < 60; ++i) {
    RawClient raw(path);
    raw.write(numbers({128, 0}));
    EXPECT_TRUE(raw.awaitClosed());
  }
  EXPECT_TRUE(delegate->awaitInvalidated(60));
  EXPECT_EQ(log.texts(LogLevel::warning).size(), LogPace::complaints + 1u);
}

TEST_F(Limits, PastTheCallsInFlightTheSocketIsNotRead) {
  std::vector<Reply<std::string>> replies;
  Notice notice;
  delegate->onSession = [&](RecordingSession& session, auto&) {
    session.onFetchDisplayURL = [&](Reply<std::string> reply) {
      notice.change([&] { replies.push_back(std::move(reply)); });
    };
  };
  std::thread other([&] {
    WireClient client(path);
    std::vector<kj::Promise<void>> calls;
    for (std::size_t i = 0; i < limits::callsInFlight + 10; ++i) {
      auto request = client.session.fetchDisplayURLRequest();
      request.setReplyWanted(true);
      calls.push_back(request.send().ignoreResult());
    }
    client.scope.poll();
    const auto session = delegate->at(1).session;
    ASSERT_TRUE(session->awaitCalls(limits::callsInFlight));
    // One answer lets one more call through, and no second.
    for (std::size_t answered = 1; answered <= 10; ++answered) {
      EXPECT_EQ(session->calls().size(), limits::callsInFlight + answered - 1);
      Reply<std::string> reply;
      notice.change([&] { reply = std::move(replies[answered]); });
      reply("answer");
      calls[answered].wait(client.scope);
      ASSERT_TRUE(session->awaitCalls(limits::callsInFlight + answered));
    }
    // A call counts a moment before its reply is kept; one kept after the clearing is never
    // answered.
    ASSERT_TRUE(notice.await([&] { return replies.size() == calls.size(); }));
    notice.change([&] { replies.clear(); });
    for (std::size_t i = 11; i < calls.size(); ++i) calls[i].wait(client.scope);
  });
  other.join();
}

TEST_F(Limits, AClientThatDoesNotReadMakesTheDaemonStopReadingIt) {
  RawClient raw(path);
  raw.write(bootstrap(0));
  // Calls whose answers nobody reads, each finished with at once.
  std::string chunk;
  timeval bound{1, 0};
  setsockopt(raw.socket.get(), SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
  std::size_t written = 0;
  bool blocked = false;
  for (std::uint32_t i = 1; i < 1000000 && !blocked; ++i) {
    chunk = call(1, 3, [](capnp::rpc::Payload::Builder parameters) {
      parameters.getContent().initAs<wire::ClientSession::FetchDisplayURLParams>().setReplyWanted(
          true);
    });
    chunk += envelope([](Message::Builder m) { m.initFinish().setQuestionId(1); });
    blocked = !raw.write(chunk);
    written += chunk.size();
  }
  EXPECT_TRUE(blocked) << written << " bytes went through";
  EXPECT_EQ(sendEvent(*bystander, 6, 6), "sent 6");

  // Nobody reads its socket then, and all the same its end is found.
  const std::size_t session = delegate->accepted.size() - 1;
  raw.socket.reset();
  EXPECT_TRUE(delegate->awaitInvalidated(session));
}

}  // namespace
}  // namespace corvid
