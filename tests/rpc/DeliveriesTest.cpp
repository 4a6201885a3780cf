// Messages for the client's aggregation block.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "protocol/Limits.h"
#include "rpc/IPCConnection.h"
#include "tests/rpc/ServiceFixture.h"
#include "tests/rpc/WireClient.h"

namespace corvid {
namespace {

// What a client hears, in order: deliveries and answers.
struct Heard {
  std::vector<std::string> lines;
  std::vector<Delivery> deliveries;
  int calls = 0;
};

class HearingClient final : public wire::ClientSessionReply::Server {
 public:
  explicit HearingClient(Heard& heard) : _heard(heard) {}
  kj::Promise<void> sendMessagesToClient(SendMessagesToClientContext context) override {
    ++_heard.calls;
    for (const wire::Delivery::Reader delivery : context.getParams().getDeliveries()) {
      wire::ValueDecoder decoder;
      Delivery heard{std::nullopt, delivery.getTimestamp(), delivery.getCategory(),
                     delivery.getType(), std::nullopt};
      if (delivery.hasMessage()) heard.message = decoder.dictionary(delivery.getMessage());
      if (delivery.hasPayload()) heard.payload = decoder.dictionary(delivery.getPayload());
      _heard.lines.push_back("delivery " + std::to_string(heard.category));
      _heard.deliveries.push_back(std::move(heard));
    }
    return kj::READY_NOW;
  }

 private:
  Heard& _heard;
};

// Hears everything and acknowledges nothing until it is told to.
class SilentClient final : public wire::ClientSessionReply::Server {
 public:
  explicit SilentClient(Heard& heard) : _hearing(heard) {}
  kj::Promise<void> sendMessagesToClient(SendMessagesToClientContext context) override {
    auto heard = _hearing.sendMessagesToClient(context);
    if (_acknowledging) return heard;
    auto pair = kj::newPromiseAndFulfiller<void>();
    _held.push_back(kj::mv(pair.fulfiller));
    return kj::mv(pair.promise);
  }
  void acknowledge() {
    _acknowledging = true;
    for (auto& each : _held) each->fulfill();
  }

 private:
  HearingClient _hearing;
  bool _acknowledging = false;
  std::vector<kj::Own<kj::PromiseFulfiller<void>>> _held;
};

class Deliveries : public ServiceFixture {
 protected:
  // Each event is delivered to the client's own block before it is answered.
  void deliverEachEvent() {
    delegate->onSession = [this](RecordingSession& session,
                                 const std::shared_ptr<Connection>& connection) {
      auto proxy = connection->remoteObjectProxyWithErrorHandler(
          [this](const std::string& error) { notice.change([&] { errors.push_back(error); }); });
      session.onMessage = [proxy](std::uint16_t category, ResultReply reply) {
        proxy->sendMessageToClient(std::nullopt, 0, category, 0, std::nullopt);
        reply("answer " + std::to_string(category));
      };
    };
  }
  std::shared_ptr<ClientSessionReplyInterface> proxyOf(std::size_t index) {
    return delegate->at(index).connection->remoteObjectProxyWithErrorHandler(
        [this](const std::string& error) { notice.change([&] { errors.push_back(error); }); });
  }
  // Runs the client's loop until it has heard so many deliveries.
  static void hear(WireClient& client, Heard& heard, std::size_t count) {
    for (int rounds = 0; heard.deliveries.size() < count && rounds < 100000; ++rounds)
      client.session.fetchDisplayURLRequest().send().wait(client.scope);
    ASSERT_EQ(heard.deliveries.size(), count);
  }

  Heard heard;
  Notice notice;
  std::vector<std::string> errors;
};

TEST_F(Deliveries, CarryTheirFiveValues) {
  start();
  WireClient client(path, kj::heap<HearingClient>(heard));
  sendEvent(client, 1, 1);
  const auto proxy = proxyOf(0);
  proxy->sendMessageToClient(Dictionary{{"SessionID", 7}}, 1700000000.5, 65535, 2,
                             Dictionary{{"key", Array{1, "two"}}});
  proxy->sendMessageToClient(Dictionary(), -1, 0, 3, std::nullopt);
  proxy->sendMessageToClient(std::nullopt, 0.0, 0, 0, std::nullopt);
  hear(client, heard, 3);
  EXPECT_EQ(heard.deliveries[0].message, (Dictionary{{"SessionID", 7}}));
  EXPECT_EQ(heard.deliveries[0].timestamp, 1700000000.5);
  EXPECT_EQ(heard.deliveries[0].category, 65535);
  EXPECT_EQ(heard.deliveries[0].type, 2);
  EXPECT_EQ(heard.deliveries[0].payload, (Dictionary{{"key", Array{1, "two"}}}));
  EXPECT_EQ(heard.deliveries[1].message, Dictionary());
  EXPECT_EQ(heard.deliveries[1].payload, std::nullopt);
  EXPECT_EQ(heard.deliveries[2].message, std::nullopt);
  EXPECT_EQ(heard.deliveries[2].timestamp, 0);
  EXPECT_EQ(heard.deliveries[2].type, 0);
}

TEST_F(Deliveries, CausedByACallAreWrittenBeforeTheRepliesOfLaterCalls) {
  deliverEachEvent();
  start();
  WireClient client(path, kj::heap<HearingClient>(heard));
  std::vector<kj::Promise<void>> calls;
  constexpr std::uint16_t events = 300;
  for (std::uint16_t i = 0; i < events; ++i) {
    auto request = client.session.sendMessagesRequest();
    auto message = request.initMessages(1)[0];
    message.setReplyWanted(true);
    message.initEvent().setCategory(i);
    calls.push_back(request.send().then(
        [&, i](auto&&) { heard.lines.push_back("answer " + std::to_string(i)); }));
  }
  for (auto& call : calls) call.wait(client.scope);
  ASSERT_EQ(heard.deliveries.size(), events);
  // The delivery of each event stands before the answer of the next one.
  std::vector<std::size_t> delivered(events);
  std::vector<std::size_t> answered(events);
  std::size_t deliveries = 0;
  std::size_t answers = 0;
  for (std::size_t at = 0; at < heard.lines.size(); ++at) {
    if (heard.lines[at].starts_with("delivery"))
      delivered[deliveries++] = at;
    else
      answered[answers++] = at;
  }
  for (std::size_t i = 0; i + 1 < events; ++i) EXPECT_LT(delivered[i], answered[i + 1]) << i;
}

TEST_F(Deliveries, OfEventsThatTravelTogetherTravelTogether) {
  deliverEachEvent();
  start();
  WireClient client(path, kj::heap<HearingClient>(heard));
  auto request = client.session.sendMessagesRequest();
  auto messages = request.initMessages(64);
  for (capnp::uint i = 0; i < 64; ++i)
    messages[i].initEvent().setCategory(static_cast<std::uint16_t>(i));
  request.send().wait(client.scope);
  ASSERT_EQ(heard.deliveries.size(), 64u);
  for (std::size_t i = 0; i < 64; ++i) EXPECT_EQ(heard.deliveries[i].category, i);
  EXPECT_EQ(heard.calls, 1);
}

TEST_F(Deliveries, FromOtherThreadsReachAClientThatMakesNoCalls) {
  start();
  WireClient client(path, kj::heap<HearingClient>(heard));
  sendEvent(client, 1, 1);
  std::vector<std::thread> threads;
  for (std::uint16_t thread = 0; thread < 4; ++thread)
    threads.emplace_back([this, thread] {
      const auto proxy = proxyOf(0);
      for (int i = 0; i < 50; ++i)
        proxy->sendMessageToClient(std::nullopt, i, thread, 0, std::nullopt);
    });
  for (auto& thread : threads) thread.join();
  // Nothing but the deliveries moves the client's loop.
  while (heard.deliveries.size() < 200) {
    client.port.poll();
    client.scope.poll();
  }
  std::vector<double> next(4, 0);
  for (const Delivery& delivery : heard.deliveries)
    EXPECT_EQ(delivery.timestamp, next[delivery.category]++) << "each thread's own order";
}

TEST_F(Deliveries, ToAClientThatDoesNotReadAreBoundedAndTheOldestAreDropped) {
  start();
  WireClient client(path, kj::heap<HearingClient>(heard));
  sendEvent(client, 1, 1);
  const auto connection = std::dynamic_pointer_cast<IPCConnection>(delegate->at(0).connection);
  const auto proxy = proxyOf(0);
  // Far more than the socket and the limits hold.
  const Dictionary payload{{"data", Data{std::string(20000, 'x')}}};
  constexpr std::uint16_t sent = 3000;
  for (std::uint16_t i = 0; i < sent; ++i)
    proxy->sendMessageToClient(std::nullopt, 0, i, 0, payload);
  const std::size_t dropped = connection->droppedDeliveries();
  EXPECT_GT(dropped, 1000u);
  EXPECT_EQ(log.texts(LogLevel::warning),
            std::vector{"Outbox: " + connection->description() +
                        " does not take its deliveries, the oldest are dropped"});
  // The rest arrives, in order, the last among them.
  hear(client, heard, sent - dropped);
  for (std::size_t i = 1; i < heard.deliveries.size(); ++i)
    EXPECT_LT(heard.deliveries[i - 1].category, heard.deliveries[i].category);
  EXPECT_EQ(heard.deliveries.back().category, sent - 1);
  EXPECT_EQ(connection->droppedDeliveries(), dropped);
}

TEST_F(Deliveries, ToAClientThatAcknowledgesNothingWaitPastTheLimit) {
  start();
  auto silent = kj::heap<SilentClient>(heard);
  SilentClient& replies = *silent;
  WireClient client(path, kj::mv(silent));
  sendEvent(client, 1, 1);
  const auto connection = std::dynamic_pointer_cast<IPCConnection>(delegate->at(0).connection);
  const auto proxy = proxyOf(0);
  for (std::size_t i = 1; i <= limits::deliveriesInFlight; ++i) {
    proxy->sendMessageToClient(std::nullopt, static_cast<double>(i), 0, 0, std::nullopt);
    hear(client, heard, i);  // each in a call of its own
  }
  const std::size_t extra = limits::deliveriesWaiting + 10;
  for (std::size_t i = 0; i < extra; ++i)
    proxy->sendMessageToClient(std::nullopt, -static_cast<double>(i), 0, 0, std::nullopt);
  for (int rounds = 0; rounds < 10; ++rounds) sendEvent(client, 1, 1);
  EXPECT_EQ(heard.deliveries.size(), limits::deliveriesInFlight);
  EXPECT_EQ(connection->droppedDeliveries(), 10u);
  EXPECT_EQ(log.texts(LogLevel::warning).size(), 1u);
  replies.acknowledge();
  hear(client, heard, limits::deliveriesInFlight + limits::deliveriesWaiting);
  EXPECT_EQ(heard.deliveries[limits::deliveriesInFlight].timestamp, -10);
  EXPECT_EQ(heard.deliveries.back().timestamp, 1 - static_cast<double>(extra));
}

TEST_F(Deliveries, WaitInTheOutboxUpToTheirLimits) {
  Outbox outbox("a client", budgets.kept, 1);
  for (std::size_t i = 0; i < limits::deliveriesWaiting; ++i)
    EXPECT_TRUE(outbox.add({std::nullopt, static_cast<double>(i), 0, 0, std::nullopt}));
  EXPECT_EQ(outbox.dropped(), 0u);
  outbox.add({std::nullopt, -1, 0, 0, std::nullopt});
  outbox.add({std::nullopt, -2, 0, 0, std::nullopt});
  EXPECT_EQ(outbox.dropped(), 2u);
  EXPECT_EQ(log.texts(LogLevel::warning).size(), 1u);
  const auto waiting = outbox.takeDeliveries().deliveries;
  EXPECT_EQ(waiting.size(), limits::deliveriesWaiting);
  EXPECT_EQ(waiting.front().timestamp, 2);
  EXPECT_EQ(waiting.back().timestamp, -2);

  const Dictionary quarter{{"data", Data{std::string(limits::deliveryBytesWaiting / 4, 'x')}}};
  for (int i = 0; i < 4; ++i) outbox.add({std::nullopt, 10.0 + i, 0, 0, quarter});
  EXPECT_EQ(outbox.dropped(), 3u) << "four with their envelopes are a little too much";
  EXPECT_EQ(outbox.takeDeliveries().deliveries.front().timestamp, 11);
}

TEST_F(Deliveries, ThatAreTooLargeAloneAreDropped) {
  Outbox outbox("a client", budgets.kept, 1);
  outbox.add({std::nullopt, 1, 0, 0,
              Dictionary{{"data", Data{std::string(limits::deliveryBytesWaiting, 'x')}}}});
  EXPECT_EQ(outbox.dropped(), 1u);
  EXPECT_FALSE(outbox.hasDeliveries());
}

TEST_F(Deliveries, ToAConnectionThatIsGoneGiveAnErrorAtEachCall) {
  start();
  std::shared_ptr<ClientSessionReplyInterface> proxy;
  std::shared_ptr<Connection> connection;
  {
    WireClient client(path, kj::heap<HearingClient>(heard));
    sendEvent(client, 1, 1);
    proxy = proxyOf(0);
    connection = delegate->at(0).connection;
    proxy->sendMessageToClient(std::nullopt, 0, 1, 0, std::nullopt);
  }
  ASSERT_TRUE(delegate->awaitInvalidated(0));
  EXPECT_TRUE(errors.empty());
  proxy->sendMessageToClient(std::nullopt, 0, 1, 0, std::nullopt);
  EXPECT_EQ(errors, std::vector<std::string>{"the connection is gone"});
  connection
      ->remoteObjectProxyWithErrorHandler([this](const std::string& e) { errors.push_back(e); })
      ->sendMessageToClient(std::nullopt, 0, 1, 0, std::nullopt);
  EXPECT_EQ(errors.size(), 2u);
}

TEST_F(Deliveries, ThatWaitForAClientThatVanishesDoNotHoldItsConnectionBack) {
  start();
  std::shared_ptr<ClientSessionReplyInterface> proxy;
  {
    WireClient client(path, kj::heap<HearingClient>(heard));
    sendEvent(client, 1, 1);
    proxy = proxyOf(0);
    const Dictionary payload{{"data", Data{std::string(100000, 'x')}}};
    for (int i = 0; i < 100; ++i) proxy->sendMessageToClient(std::nullopt, 0, 1, 0, payload);
  }
  ASSERT_TRUE(delegate->awaitInvalidated(0));
  EXPECT_TRUE(errors.empty());
  proxy->sendMessageToClient(std::nullopt, 0, 1, 0, std::nullopt);
  EXPECT_EQ(errors, std::vector<std::string>{"the connection is gone"});
}

TEST_F(Deliveries, ToAClientWithoutAnInterfaceHarmNothing) {
  deliverEachEvent();
  start();
  WireClient client(path);
  for (std::uint16_t i = 0; i < 200; ++i)
    EXPECT_EQ(sendEvent(client, i, 0), "answer " + std::to_string(i));
  EXPECT_TRUE(log.texts(LogLevel::warning).empty());
}

}  // namespace
}  // namespace corvid
