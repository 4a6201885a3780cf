// What a client hears of its session's states, and of what becomes of its messages.
#include <capnp/any.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "base/LittleEndian.h"
#include "tests/rpc/RawMessages.h"
#include "tests/rpc/ServiceFixture.h"
#include "tests/rpc/WireClient.h"

namespace corvid {
namespace {

using Report = StatesReport;

const Report sampledOut{.backends = {{"httpPost", "disabled", Reason::sampledOut}}};
const Report sending{.backends = {{"httpPost", "sending", Reason::reporting, true},
                                  {"dashboard", "disabled", Reason::noConsent}}};

// "httpPost sending reporting, ..." or the session's reason, then the states.
std::string textOf(wire::StatesReport::Reader report) {
  std::string text;
  if (report.hasReason()) text = report.getReason().cStr();
  for (const wire::BackendReport::Reader backend : report.getBackends())
    text += std::string(backend.getName()) + " " + backend.getState().cStr() + " " +
            backend.getReason().cStr() + ", ";
  if (!report.hasStates()) return text + "/ none";
  text += "/";
  for (const wire::PropertyValue::Reader state : report.getStates())
    text += std::string(" ") + state.getText().cStr();
  return text;
}

class WatchingClient final : public wire::ClientSessionReply::Server {
 public:
  explicit WatchingClient(std::vector<std::string>& heard) : _heard(heard) {}
  kj::Promise<void> statesChanged(StatesChangedContext context) override {
    _heard.push_back(textOf(context.getParams().getReport()));
    if (!acknowledges) return kj::NEVER_DONE;
    return kj::READY_NOW;
  }
  bool acknowledges = true;

 private:
  std::vector<std::string>& _heard;
};

class States : public ServiceFixture {
 protected:
  void describe(WireClient& client, bool changesWanted) {
    auto request = client.session.setSessionInfoRequest();
    request.initSessionInfo(0);
    request.initFrameworksToCheck(0);
    request.setChangesWanted(changesWanted);
    request.send().wait(client.scope);
  }
  void change(const Report& report) {
    delegate->at(0).session->report(report);
    delegate->at(0).connection->statesMayHaveChanged();
  }
  // Runs the client's loop until it has heard so often, or nothing more comes.
  void hear(WireClient& client, std::size_t count) {
    for (int rounds = 0; heard.size() < count && rounds < 20000; ++rounds)
      client.session.fetchDisplayURLRequest().send().wait(client.scope);
  }
  void settle(WireClient& client) {
    for (int rounds = 0; rounds < 200; ++rounds)
      client.session.fetchDisplayURLRequest().send().wait(client.scope);
  }

  std::vector<std::string> heard;
};

TEST_F(States, AClientThatWishedItHearsOfAChange) {
  start();
  WireClient client(path, kj::heap<WatchingClient>(heard));
  describe(client, true);
  change(sending);
  hear(client, 1);
  ASSERT_EQ(heard.size(), 1u);
  EXPECT_EQ(heard[0], "httpPost sending reporting, dashboard disabled noConsent, / httpPost");
  change({.reason = Reason::storebagUnreachable});
  hear(client, 2);
  ASSERT_EQ(heard.size(), 2u);
  EXPECT_EQ(heard[1], "storebagUnreachable/ none");
}

TEST_F(States, AreNotToldAgainWhereTheyAreTheSame) {
  start();
  WireClient client(path, kj::heap<WatchingClient>(heard));
  describe(client, true);
  change(sending);
  hear(client, 1);
  change(sending);
  settle(client);
  EXPECT_EQ(heard.size(), 1u);
}

TEST_F(States, ThatAnAnswerTellsAreNotToldBesides) {
  delegate->onSession = [](RecordingSession& session, auto&) {
    session.states = Array{"httpPost"};
  };
  start();
  WireClient client(path, kj::heap<WatchingClient>(heard));
  describe(client, true);
  change(sending);
  hear(client, 1);
  delegate->at(0).session->report(sampledOut);
  auto request = client.session.startConfigRequest();
  request.setReplyWanted(true);
  request.setReportWanted(true);
  auto answer = request.send().wait(client.scope);
  ASSERT_TRUE(answer.isReport());
  EXPECT_EQ(textOf(answer.getReport()), "httpPost disabled sampledOut, / httpPost");
  change(sampledOut);
  settle(client);
  EXPECT_EQ(heard.size(), 1u);
}

TEST_F(States, ThatChangeWhileTheClientIsSilentAreToldOnceAndAsTheyAreInTheEnd) {
  start();
  auto silent = kj::heap<WatchingClient>(heard);
  silent->acknowledges = false;
  WireClient client(path, kj::mv(silent));
  describe(client, true);
  change(sending);
  hear(client, 1);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      for (int n = 0; n < 500; ++n) change(n % 2 == 0 ? sampledOut : sending);
    });
  for (auto& thread : threads) thread.join();
  settle(client);
  EXPECT_EQ(heard.size(), 1u) << "nothing while the first is not acknowledged";
}

TEST_F(States, ThatChangeInAStormLeaveTheClientWithTheLatest) {
  start();
  WireClient client(path, kj::heap<WatchingClient>(heard));
  describe(client, true);
  std::thread storm([&] {
    for (int n = 0; n < 5000; ++n) change(n % 2 == 0 ? sampledOut : sending);
    change({.reason = Reason::noBackendMade});
  });
  for (int rounds = 0; rounds < 50000 && (heard.empty() || heard.back() != "noBackendMade/ none");
       ++rounds)
    client.session.fetchDisplayURLRequest().send().wait(client.scope);
  storm.join();
  ASSERT_FALSE(heard.empty());
  EXPECT_EQ(heard.back(), "noBackendMade/ none");
  for (std::size_t i = 1; i < heard.size(); ++i) EXPECT_NE(heard[i - 1], heard[i]) << i;
}

TEST_F(States, AClientThatWishesNothingHearsNothing) {
  start();
  WireClient client(path, kj::heap<WatchingClient>(heard));
  describe(client, false);
  change(sending);
  settle(client);
  EXPECT_TRUE(heard.empty());
  describe(client, true);
  hear(client, 1);
  EXPECT_EQ(heard.size(), 1u) << "it does not know yet what they have become";
  change(sampledOut);
  hear(client, 2);
  describe(client, false);
  change(sending);
  settle(client);
  EXPECT_EQ(heard.size(), 2u) << "a wish that is withdrawn holds no longer";
}

TEST_F(States, AClientThatCannotHearItLosesNothing) {
  start();
  WireClient client(path);
  describe(client, true);
  change(sending);
  settle(client);
  EXPECT_EQ(sendEvent(client, 3, 1), "sent 3");
}

MessageAnswer dropped(Reason reason, std::optional<std::string> text = std::nullopt) {
  MessageAnswer answer(std::move(text));
  answer.dropped = reason;
  return answer;
}

class MessageReasons : public ServiceFixture {
 protected:
  void SetUp() override {
    delegate->onSession = [](RecordingSession& session, auto&) {
      session.onMessage = [](std::uint16_t category, ResultReply reply) {
        if (category == 1) return reply("taken");
        if (category == 2) return reply(dropped(Reason::notConfigured));
        reply(dropped(Reason::batchFull, "flushed"));
      };
    };
    start();
  }
  using Response = capnp::Response<wire::ClientSession::SendMessagesResults>;
  static Response send(WireClient& client, std::uint16_t category, bool reasonWanted) {
    auto request = client.session.sendMessagesRequest();
    auto message = request.initMessages(1)[0];
    message.setReplyWanted(true);
    message.setReasonWanted(reasonWanted);
    message.initEvent().setCategory(category);
    return request.send().wait(client.scope);
  }
};

TEST_F(MessageReasons, ReachTheClientThatWantsThem) {
  WireClient client(path);
  const auto first = send(client, 1, true);
  const auto taken = first.getResults()[0];
  EXPECT_TRUE(taken.getIsReasoned());
  EXPECT_EQ(taken.getText(), "taken");
  const auto second = send(client, 2, true);
  const auto refused = second.getResults()[0];
  EXPECT_TRUE(refused.getIsReasoned());
  ASSERT_TRUE(refused.isDropped());
  EXPECT_EQ(refused.getDropped().getReason(), "notConfigured");
  EXPECT_FALSE(refused.getDropped().hasText());
  const auto third = send(client, 3, true);
  const auto full = third.getResults()[0];
  ASSERT_TRUE(full.isDropped());
  EXPECT_EQ(full.getDropped().getReason(), "batchFull");
  EXPECT_EQ(full.getDropped().getText(), "flushed");
}

TEST_F(MessageReasons, AreNotToldUnasked) {
  WireClient client(path);
  EXPECT_TRUE(send(client, 2, false).getResults()[0].isNone());
  EXPECT_EQ(send(client, 3, false).getResults()[0].getText(), "flushed");
  EXPECT_FALSE(send(client, 3, false).getResults()[0].getIsReasoned());
  EXPECT_FALSE(delegate->at(0).session->reasonsWanted);
  send(client, 3, true);
  EXPECT_TRUE(delegate->at(0).session->reasonsWanted);
}

// Reads whole messages of one segment from the daemon.
class RawReader {
 public:
  explicit RawReader(RawClient& client) : _client(client) {}
  // The next message; null where none comes in the time.
  kj::Own<capnp::MessageReader> next() {
    timeval bound{2, 0};
    setsockopt(_client.socket.get(), SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
    char header[8];
    if (recv(_client.socket.get(), header, sizeof header, MSG_WAITALL) != sizeof header) return {};
    EXPECT_EQ(loadLittle<std::uint32_t>(header), 0u);
    _words = kj::heapArray<capnp::word>(loadLittle<std::uint32_t>(header + 4));
    auto bytes = _words.asBytes();
    EXPECT_EQ(recv(_client.socket.get(), bytes.begin(), bytes.size(), MSG_WAITALL),
              static_cast<ssize_t>(bytes.size()));
    const kj::ArrayPtr<const capnp::word> segment = _words;
    _segments[0] = segment;
    return kj::heap<capnp::SegmentArrayMessageReader>(kj::arrayPtr(_segments, 1));
  }

 private:
  RawClient& _client;
  kj::Array<capnp::word> _words;
  kj::ArrayPtr<const capnp::word> _segments[1];
};

// The results of the next message, which must be a return.
capnp::AnyStruct::Reader resultsOf(capnp::MessageReader& message) {
  const auto root = message.getRoot<capnp::rpc::Message>();
  EXPECT_TRUE(root.isReturn());
  return root.getReturn().getResults().getContent().getAs<capnp::AnyStruct>();
}

// Not one byte differs for a client of the schema before there were reasons.
TEST_F(MessageReasons, AnOldClientGetsTheBytesThatItAlwaysGot) {
  RawClient client(path);
  RawReader reader(client);
  ASSERT_TRUE(client.write(bootstrap(0)));
  ASSERT_NE(reader.next().get(), nullptr);
  const auto callOf = [](std::uint32_t question, std::uint16_t method, auto fill) {
    return call(question, method,
                [&](capnp::rpc::Payload::Builder params) { fill(params.getContent()); });
  };
  using Session = wire::ClientSession;
  ASSERT_TRUE(client.write(callOf(1, 0, [](capnp::AnyPointer::Builder content) {
    content.initAs<Session::SetSessionInfoParams>().initSessionInfo(0);
  })));
  ASSERT_NE(reader.next().get(), nullptr);
  // Whatever happens to the states, nobody calls this client.
  delegate->at(0).session->report(sending);
  delegate->at(0).connection->statesMayHaveChanged();

  ASSERT_TRUE(client.write(callOf(2, 1, [](capnp::AnyPointer::Builder content) {
    content.initAs<Session::StartConfigParams>().setReplyWanted(true);
  })));
  auto configured = reader.next();
  const auto states = resultsOf(*configured);
  ASSERT_EQ(states.getDataSection().size(), 8u);
  ASSERT_EQ(states.getPointerSection().size(), 1u);
  EXPECT_EQ(std::string(states.getDataSection().asChars().begin(), 8),
            std::string("\1\0\0\0\0\0\0\0", 8));
  EXPECT_TRUE(states.getPointerSection()[0].isNull());

  ASSERT_TRUE(client.write(callOf(3, 4, [](capnp::AnyPointer::Builder content) {
    auto message = content.initAs<Session::SendMessagesParams>().initMessages(1)[0];
    message.setReplyWanted(true);
    message.initEvent().setCategory(2);
  })));
  auto sent = reader.next();
  const auto results = resultsOf(*sent);
  EXPECT_EQ(results.getDataSection().size(), 0u);
  const auto list =
      results.getPointerSection()[0].getAs<capnp::AnyList>().as<capnp::List<capnp::AnyStruct>>();
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(
      std::string(list[0].getDataSection().asChars().begin(), list[0].getDataSection().size()),
      std::string("\1\0\0\0\0\0\0\0", 8));
  EXPECT_EQ(list[0].getPointerSection().size(), 1u);
  EXPECT_TRUE(list[0].getPointerSection()[0].isNull());
  EXPECT_EQ(reader.next().get(), nullptr) << "nothing that was not asked for";
}

}  // namespace
}  // namespace corvid
