// What the clients of one user may make the daemon hold together.
#include <gtest/gtest.h>

#include <list>
#include <string>
#include <thread>
#include <vector>

#include "tests/rpc/RawMessages.h"
#include "tests/rpc/ServiceFixture.h"
#include "tests/rpc/TestGrant.h"
#include "tests/rpc/WireClient.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

std::string largeEvent(std::uint32_t question) {
  return call(question, 4, [](capnp::rpc::Payload::Builder parameters) {
    auto event = parameters.getContent()
                     .initAs<wire::ClientSession::SendMessagesParams>()
                     .initMessages(1)[0]
                     .initEvent();
    fill(event.initPayload(1), {{"text", std::string(mebibyte, 'x')}});
  });
}

class BudgetsTest : public ServiceFixture {
 protected:
  std::uint32_t self() const { return getuid(); }
};

TEST_F(BudgetsTest, ALargeMessageWaitsForMemoryBeforeItIsRead) {
  start();
  // Other clients of this user have all that it may have.
  auto others = budgets.incoming->take(self(), 80 * mebibyte);
  ASSERT_TRUE(others);
  WireClient client(path);
  RawClient raw(path);
  std::jthread writer([&] { raw.write(bootstrap(0) + largeEvent(1)); });
  EXPECT_EQ(sendEvent(client, 1, 1), "sent 1") << "small messages do not wait";
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_TRUE(delegate->at(1).session->calls().empty());
  others.reset();
  EXPECT_TRUE(delegate->at(1).session->awaitCalls(1));
}

TEST_F(BudgetsTest, TheMemoryOfAMessageIsFreeOnceItsCallHasRun) {
  start();
  RawClient raw(path);
  raw.write(bootstrap(0) + largeEvent(1) + largeEvent(2));
  EXPECT_TRUE(delegate->at(0).session->awaitCalls(2));
  EXPECT_TRUE(waitUntil([&] { return budgets.incoming->held() == 0; }));
}

TEST_F(BudgetsTest, TheMemoryOfAConnectionIsFreeWhenItEnds) {
  start();
  {
    RawClient raw(path);
    raw.write(bootstrap(0) + largeEvent(1).substr(0, mebibyte / 2));
    EXPECT_TRUE(waitUntil([&] { return budgets.incoming->held() > 0; }));
  }
  EXPECT_TRUE(waitUntil([&] { return budgets.incoming->held() == 0; }));
}

TEST_F(BudgetsTest, AnAnswerThatFindsNoRoomIsLeftOut) {
  delegate->onSession = [](RecordingSession& session, auto&) {
    session.onMessage = [](std::uint16_t, ResultReply reply) { reply(std::string(mebibyte, 'y')); };
  };
  start();
  auto others = budgets.answers->take(self(), 24 * mebibyte);
  ASSERT_TRUE(others);
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 1, 1), "none");
  EXPECT_EQ(log.texts(LogLevel::warning).size(), 1u);
  others.reset();
  EXPECT_EQ(sendEvent(client, 1, 1).size(), mebibyte);
  EXPECT_EQ(sendEvent(client, 1, 1).size(), mebibyte);
  EXPECT_TRUE(waitUntil([&] { return budgets.answers->held() == 0; }))
      << "an answer that was taken makes room";
}

TEST_F(BudgetsTest, AnswersThatAreNotTakenAreBoundedForAUser) {
  delegate->onSession = [](RecordingSession& session, auto&) {
    session.onMessage = [](std::uint16_t, ResultReply reply) {
      reply(std::string(4 * mebibyte, 'y'));
    };
  };
  start();
  std::list<RawClient> clients;
  constexpr std::size_t count = 30;
  for (std::size_t i = 0; i < count; ++i) {
    clients.emplace_back(path);
    clients.back().write(bootstrap(0) + call(1, 4, [](capnp::rpc::Payload::Builder parameters) {
                           auto message = parameters.getContent()
                                              .initAs<wire::ClientSession::SendMessagesParams>()
                                              .initMessages(1)[0];
                           message.setReplyWanted(true);
                           message.initEvent();
                         }));
    EXPECT_TRUE(delegate->at(i).session->awaitCalls(1));
  }
  // Six fit; of the lines for the others the last are only counted.
  EXPECT_TRUE(waitUntil([&] { return log.texts(LogLevel::warning).size() >= 20; }));
  EXPECT_LE(budgets.answers->held(), 24 * mebibyte);
}

TEST_F(BudgetsTest, InfosBesideAllThatTheUserHasKeptEndTheConnection) {
  start();
  const auto others = budgets.kept->take(self(), 40 * mebibyte);
  ASSERT_TRUE(others);
  WireClient client(path);
  auto info = client.session.setSessionInfoRequest();
  fill(info.initSessionInfo(1), {{"ClientType", 5}});
  EXPECT_THROW(info.send().wait(client.scope), kj::Exception);
  client.awaitClosed();
  ASSERT_EQ(log.texts(LogLevel::warning).size(), 1u);
  EXPECT_NE(log.texts(LogLevel::warning)[0].find("beside all that its user has kept"),
            std::string::npos);
}

TEST_F(BudgetsTest, DeliveriesThatFindNoMemoryAreDroppedAndCounted) {
  Outbox outbox("a client", budgets.kept, 1);
  const Dictionary payload{{"text", std::string(mebibyte, 'x')}};
  auto others = budgets.kept->take(1, 31 * mebibyte);
  ASSERT_TRUE(others);
  EXPECT_TRUE(outbox.add({std::nullopt, 1, 0, 0, payload}));
  EXPECT_EQ(outbox.dropped(), 1u);
  EXPECT_FALSE(outbox.hasDeliveries());
  others.reset();
  EXPECT_TRUE(outbox.add({std::nullopt, 2, 0, 0, payload}));
  EXPECT_EQ(outbox.dropped(), 1u);
  EXPECT_GT(budgets.kept->held(), mebibyte);
  {
    const Outbox::Batch batch = outbox.takeDeliveries();
    EXPECT_EQ(batch.deliveries.size(), 1u);
    EXPECT_GT(budgets.kept->held(), mebibyte) << "until it is acknowledged";
  }
  EXPECT_EQ(budgets.kept->held(), 0u);
}

}  // namespace
}  // namespace corvid
