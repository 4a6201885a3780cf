// Every call of `corvidctl session`: what reaches the daemon and what is printed.
#include "protocol/Reply.h"
#include "tests/support/ToolProcess.h"
#include "tests/tools/corvidctl/SessionProcess.h"

namespace corvid {
namespace {

using Lines = std::vector<std::string>;

class SessionCalls : public CtlFixture {
 protected:
  RecordingSession::Call onlyCall() {
    const auto made = calls();
    EXPECT_EQ(made.size(), 1u);
    return made.empty() ? RecordingSession::Call{} : made.front();
  }
};

TEST_F(SessionCalls, SetSessionInfoCarriesEveryArgument) {
  serve();
  EXPECT_EQ(
      answerTo(
          R"({"call":"setSessionInfo","sessionInfo":{"ClientType":5,"BatchEvent":true},)"
          R"("userInfo":{"_clientName":"Pl\u00e4yer"},"frameworksToCheck":["a","b"],"hasAggregationBlock":true})"),
      R"({"call":"setSessionInfo"})");
  const auto call = onlyCall();
  EXPECT_EQ(call.name, "setSessionInfo");
  EXPECT_EQ(call.dictionary, (Dictionary{{"ClientType", 5}, {"BatchEvent", true}}));
  EXPECT_EQ(call.userInfo, (Dictionary{{"_clientName", "Pl\u00e4yer"}}));
  EXPECT_EQ(call.array, (Array{"a", "b"}));
  EXPECT_TRUE(call.flag);
}

TEST_F(SessionCalls, WhatSetSessionInfoLeavesOutIsAbsent) {
  serve();
  EXPECT_EQ(answerTo(R"({"call":"setSessionInfo","userInfo":null})"),
            R"({"call":"setSessionInfo"})");
  const auto call = onlyCall();
  EXPECT_EQ(call.dictionary, Dictionary());
  EXPECT_EQ(call.userInfo, std::nullopt);
  EXPECT_EQ(call.array, Array());
  EXPECT_FALSE(call.flag);
}

TEST_F(SessionCalls, AnEmptyUserInfoIsPresent) {
  serve();
  answerTo(R"({"call":"setSessionInfo","sessionInfo":{},"userInfo":{}})");
  EXPECT_EQ(onlyCall().userInfo, Dictionary());
}

TEST_F(SessionCalls, StartConfigPrintsTheStates) {
  serve([](RecordingSession& session, auto&) { session.states = Array{"httpPost", "metrix"}; });
  EXPECT_EQ(answerTo(R"({"call":"startConfig"})"),
            R"({"call":"startConfig","states":["httpPost","metrix"]})");
}

TEST_F(SessionCalls, StatesThatAreNoArrayAreNull) {
  serve();
  EXPECT_EQ(answerTo(R"({"call":"startConfig"})"), R"({"call":"startConfig","states":null})");
}

TEST_F(SessionCalls, FetchStatesCarriesTheUserInfo) {
  serve([](RecordingSession& session, auto&) { session.states = Array{}; });
  EXPECT_EQ(answerTo(R"({"call":"fetchStates","userInfo":{"_serviceName":"Film"}})"),
            R"({"call":"fetchStates","states":[]})");
  EXPECT_EQ(onlyCall().userInfo, (Dictionary{{"_serviceName", "Film"}}));
}

TEST_F(SessionCalls, FetchStatesWithoutUserInfoAsksWithoutIt) {
  serve();
  EXPECT_EQ(answerTo(R"({"call":"fetchStates"})"), R"({"call":"fetchStates","states":null})");
  EXPECT_EQ(onlyCall().userInfo, std::nullopt);
}

TEST_F(SessionCalls, FetchDisplayURLPrintsTheURL) {
  serve([](RecordingSession& session, auto&) {
    session.onFetchDisplayURL = [](Reply<std::string> reply) { reply("https://\u00e9/\"?\""); };
  });
  EXPECT_EQ(answerTo(R"({"call":"fetchDisplayURL"})"),
            "{\"call\":\"fetchDisplayURL\",\"url\":\"https://\u00e9/\\\"?\\\"\"}");
}

TEST_F(SessionCalls, SendMessageCarriesNumbersAndEveryTypeOfPayload) {
  serve();
  EXPECT_EQ(
      answerTo(
          R"({"call":"sendMessage","category":65535,"type":2,"payload":{"i":-7,"r":1.5,"t":true,)"
          R"("n":null,"s":"a\"b","d":{"$date":1700000000.5},"b":{"$data":"AP8="},"l":[[1],{}]}})"),
      R"({"call":"sendMessage","result":"sent 65535"})");
  const auto call = onlyCall();
  EXPECT_EQ(call.category, 65535);
  EXPECT_EQ(call.type, 2);
  EXPECT_EQ(call.payload, (Dictionary{{"i", -7},
                                      {"r", 1.5},
                                      {"t", true},
                                      {"n", Value()},
                                      {"s", "a\"b"},
                                      {"d", Date{1700000000.5}},
                                      {"b", Data{std::string("\0\xff", 2)}},
                                      {"l", Array{Array{1}, Dictionary{}}}}));
}

TEST_F(SessionCalls, SendMessageWithoutArgumentsSendsNumbersOfZeroAndNoPayload) {
  serve([](RecordingSession& session, auto&) {
    session.onMessage = [](auto, ResultReply reply) { reply(std::nullopt); };
  });
  EXPECT_EQ(answerTo(R"({"call":"sendMessage"})"), R"({"call":"sendMessage","result":null})");
  const auto call = onlyCall();
  EXPECT_EQ(call.category, 0);
  EXPECT_EQ(call.type, 0);
  EXPECT_EQ(call.payload, std::nullopt);
}

TEST_F(SessionCalls, SendMessageWithDictionaryCarriesTheDictionaryAsItIs) {
  serve();
  EXPECT_EQ(
      answerTo(
          R"({"call":"sendMessageWithDictionary","message":{"Category":"x","Flag":99999,"Payload":[]}})"),
      R"({"call":"sendMessageWithDictionary","result":"sent 0"})");
  EXPECT_EQ(onlyCall().dictionary,
            (Dictionary{{"Category", "x"}, {"Flag", 99999}, {"Payload", Array{}}}));
}

TEST_F(SessionCalls, SendMessageWithDictionaryWithoutMessageSendsAnEmptyOne) {
  serve();
  answerTo(R"({"call":"sendMessageWithDictionary"})");
  EXPECT_EQ(onlyCall().dictionary, Dictionary());
}

TEST_F(SessionCalls, FlushPrintsTextAndError) {
  serve([](RecordingSession& session, auto&) {
    session.onFlush = [](FlushReply reply) {
      reply("went out", CorvidError{"some.domain", 503, "server \"x\" refused"});
    };
  });
  EXPECT_EQ(answerTo(R"({"call":"flush"})"),
            R"({"call":"flush","result":"went out","error":{"domain":"some.domain","code":503,)"
            R"("description":"server \"x\" refused"}})");
}

TEST_F(SessionCalls, FlushWithoutErrorPrintsNull) {
  serve([](RecordingSession& session, auto&) {
    session.onFlush = [](FlushReply reply) { reply(std::nullopt, std::nullopt); };
  });
  EXPECT_EQ(answerTo(R"({"call":"flush"})"), R"({"call":"flush","result":null,"error":null})");
}

TEST_F(SessionCalls, FinishPrintsItsResult) {
  serve();
  EXPECT_EQ(answerTo(R"({"call":"finish"})"), R"({"call":"finish","result":null})");
}

TEST_F(SessionCalls, UploadFileNamesTheFileByItsURL) {
  serve();
  EXPECT_EQ(answerTo(R"({"call":"uploadFile","path":"/tmp/a b\u00fc"})"),
            R"({"call":"uploadFile","success":true})");
  EXPECT_EQ(onlyCall().text, "file:///tmp/a%20b%C3%BC");
}

TEST_F(SessionCalls, UploadLogDataPrintsSuccessAndError) {
  serve();
  EXPECT_EQ(
      answerTo(R"({"call":"uploadLogData","logData":[{"$data":"eA=="},"line"]})"),
      R"({"call":"uploadLogData","success":false,"error":{"domain":"com.halcyon.corvid.error",)"
      R"("code":7,"description":"no log data"}})");
  EXPECT_EQ(onlyCall().array, (Array{Data{"x"}, "line"}));
}

TEST_F(SessionCalls, SendSingleMessageCarriesEveryArgument) {
  serve();
  EXPECT_EQ(
      answerTo(R"({"call":"sendSingleMessage","sessionInfo":{"ClientType":1},"userInfo":{"u":1},)"
               R"("category":3,"type":4,"payload":{"p":1}})"),
      R"({"call":"sendSingleMessage","result":"finished"})");
  const auto call = onlyCall();
  EXPECT_EQ(call.dictionary, (Dictionary{{"ClientType", 1}}));
  EXPECT_EQ(call.userInfo, (Dictionary{{"u", 1}}));
  EXPECT_EQ(call.category, 3);
  EXPECT_EQ(call.type, 4);
  EXPECT_EQ(call.payload, (Dictionary{{"p", 1}}));
}

TEST_F(SessionCalls, ACallWithoutAnswerSaysSo) {
  serve([](RecordingSession& session, auto&) {
    session.onMessage = [](auto, ResultReply) {};
    session.onFlush = [](FlushReply) {};
  });
  EXPECT_EQ(session("{\"call\":\"sendSingleMessage\",\"sessionInfo\":{}}\n"
                    "{\"call\":\"sendMessage\"}\n{\"call\":\"flush\"}\n"),
            (Lines{R"({"call":"sendSingleMessage","answered":false})",
                   R"({"call":"sendMessage","answered":false})",
                   R"({"call":"flush","answered":false})"}));
}

TEST_F(SessionCalls, EveryCallCanBeMadeWithoutACallback) {
  serve();
  EXPECT_EQ(session(R"({"call":"startConfig","reply":false}
{"call":"fetchStates","reply":false}
{"call":"sendMessage","reply":false}
{"call":"sendMessageWithDictionary","reply":false}
{"call":"flush","reply":false}
{"call":"sendMessage","reply":true}
)"),
            (Lines{R"({"call":"startConfig"})", R"({"call":"fetchStates"})",
                   R"({"call":"sendMessage"})", R"({"call":"sendMessageWithDictionary"})",
                   R"({"call":"flush"})", R"({"call":"sendMessage","result":"sent 0"})"}));
  std::vector<bool> wanted;
  for (const auto& call : calls()) wanted.push_back(call.replyWanted);
  EXPECT_EQ(wanted, (std::vector<bool>{false, false, false, false, false, true}));
}

TEST_F(SessionCalls, CallsAreMadeInOrderOnOneConnection) {
  serve();
  std::string input;
  Lines expected;
  for (int i = 0; i < 200; ++i) {
    input += "{\"call\":\"sendMessage\",\"category\":" + std::to_string(i) + "}\n";
    expected.push_back("{\"call\":\"sendMessage\",\"result\":\"sent " + std::to_string(i) + "\"}");
  }
  EXPECT_EQ(session(input), expected);
  EXPECT_EQ(calls().size(), 200u);
  EXPECT_TRUE(delegate->awaitInvalidated(0));
  EXPECT_EQ(delegate->accepted.size(), 1u);
}

TEST_F(SessionCalls, CallsInWhateverOrderGoOutAndTheDaemonDecides) {
  serve();
  EXPECT_EQ(
      session("{\"call\":\"finish\"}\n{\"call\":\"sendMessage\"}\n"
              "{\"call\":\"setSessionInfo\"}\n{\"call\":\"startConfig\"}\n"),
      (Lines{R"({"call":"finish","result":null})", R"({"call":"sendMessage","result":"sent 0"})",
             R"({"call":"setSessionInfo"})", R"({"call":"startConfig","states":null})"}));
}

TEST_F(SessionCalls, AMessageForTheAggregationBlockIsAnEvent) {
  serve([](RecordingSession& session, const std::shared_ptr<Connection>& connection) {
    session.onMessage = [weak = std::weak_ptr(connection)](std::uint16_t, ResultReply reply) {
      const auto client = weak.lock()->remoteObjectProxyWithErrorHandler([](auto&) {});
      client->sendMessageToClient(Dictionary{{"m", Date{1}}}, 12.5, 1, 2,
                                  Dictionary{{"p", Data{"x"}}});
      client->sendMessageToClient(std::nullopt, 0, 0, 0, std::nullopt);
      reply(std::nullopt);
    };
  });
  EXPECT_EQ(
      session("{\"call\":\"sendMessage\"}\n"),
      (Lines{
          R"({"event":"message","message":{"m":{"$date":1.0}},"timestamp":12.5,"category":1,)"
          R"("type":2,"payload":{"p":{"$data":"eA=="}}})",
          R"({"event":"message","message":null,"timestamp":0,"category":0,"type":0,"payload":null})",
          R"({"call":"sendMessage","result":null})"}));
}

TEST_F(SessionCalls, EventsComeWhileNoCallIsUnderWay) {
  serve();
  ToolProcess process(CORVIDCTL_PROGRAM, {"--root", folder.path(), "session"});
  const auto client =
      delegate->at(0).connection->remoteObjectProxyWithErrorHandler([](const std::string&) {});
  client->sendMessageToClient(Dictionary{}, 1, 2, 3, std::nullopt);
  EXPECT_EQ(
      process.readLine(),
      R"({"event":"message","message":{},"timestamp":1.0,"category":2,"type":3,"payload":null})");
  EXPECT_EQ(process.finish(), 0);
}

TEST_F(SessionCalls, EachOutcomeIsWrittenBeforeTheNextLineIsNeeded) {
  serve();
  ToolProcess process(CORVIDCTL_PROGRAM, {"--root", folder.path(), "session"});
  for (int i = 1; i < 4; ++i) {
    process.write("{\"call\":\"sendMessage\",\"category\":" + std::to_string(i) + "}\n");
    EXPECT_EQ(process.readLine(),
              "{\"call\":\"sendMessage\",\"result\":\"sent " + std::to_string(i) + "\"}");
  }
  EXPECT_EQ(process.finish(), 0);
}

TEST_F(SessionCalls, SleepWaitsSoLong) {
  serve();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(answerTo(R"({"call":"sleep","seconds":0.25})"), R"({"call":"sleep"})");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
  EXPECT_TRUE(calls().empty());
}

}  // namespace
}  // namespace corvid
