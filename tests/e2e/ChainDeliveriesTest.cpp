// Messages of a chain on their way to the aggregation block of the topmost client.
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <corvid/corvid.hpp>
#include <memory>
#include <mutex>
#include <thread>

#include "base/Reading.h"
#include "tests/e2e/ChainFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

constexpr std::uint16_t chainCategory = 7;

const Dictionary shutdownSignal{{"event", "message"}, {"message", Value()}, {"timestamp", 0},
                                {"category", 0},      {"type", 0},          {"payload", Value()}};

// What an aggregation block in this process got.
struct Heard {
  struct Delivery {
    bool hasMessage, hasPayload;
    double timestamp;
    int category, type;
    std::int64_t sessionID;
    std::string mark, clientName;
  };
  void add(client::DictionaryView message, double timestamp, std::uint16_t messageCategory,
           std::uint16_t type, client::DictionaryView payload) {
    const std::lock_guard lock(mutex);
    deliveries.push_back({static_cast<bool>(message), static_cast<bool>(payload), timestamp,
                          messageCategory, type, message["SessionID"].integer().value_or(0),
                          std::string(payload["mark"].string().value_or("")),
                          std::string(payload["_clientName"].string().value_or(""))});
  }
  std::vector<Delivery> all() {
    const std::lock_guard lock(mutex);
    return deliveries;
  }

  std::mutex mutex;
  std::vector<Delivery> deliveries;
};

class ChainDeliveries : public ChainFixture {
 protected:
  static ClientProcess::Condition hasMark(const std::string& mark) {
    return [mark](const Dictionary& event) {
      const Dictionary* payload = dictionaryAt(event, "payload");
      const std::string* text = payload ? stringAt(*payload, "mark") : nullptr;
      return text != nullptr && *text == mark;
    };
  }
  static ClientProcess::Condition isShutdown() {
    return [](const Dictionary& event) { return event == shutdownSignal; };
  }
  ChainMember joinAggregating(int level) { return join({.level = level, .aggregates = true}); }
  // A child in this process, for floods.
  std::unique_ptr<TestClient> startChild() {
    auto child = std::make_unique<TestClient>(_root.path());
    EXPECT_EQ(child
                  ->configure({.clientType = ChainMember::clientType(1),
                               .batches = true,
                               .clientName = "Player",
                               .serviceName = "Film"})
                  .text(),
              "httpPost");
    return child;
  }
};

// corvidctl

TEST_F(ChainDeliveries, AChildsMessagesArePrintedByTheTopmostClientAndArriveAtTheCollector) {
  auto top = joinAggregating(0);
  auto child = joinAggregating(1);
  EXPECT_TRUE(child.process().awaitEvent(isShutdown()));
  child.sendAndFlush("event");
  ASSERT_TRUE(top.process().awaitEvent(hasMark("event")));
  const Dictionary event = top.process().events().back();
  EXPECT_EQ(event.find("message")->dictionary() ? *dictionaryAt(event, "message") : Dictionary(),
            child.sessionInfo());
  EXPECT_GT(asNumber(event.find("timestamp")).value_or(0), 1.6e9);
  EXPECT_EQ(integerAt(event, "category"), 7);
  EXPECT_EQ(integerAt(event, "type"), 2);
  EXPECT_EQ(*dictionaryAt(event, "payload"),
            (Dictionary{{"mark", "event"}, {"_clientName", "Player"}, {"_serviceName", "Film"}}));
  EXPECT_EQ(textOf("event"), top.identifier + "." + child.identifier);
  EXPECT_EQ(child.process().events().back(), shutdownSignal) << "and nothing after it";
}

TEST_F(ChainDeliveries, AMessageWithoutPayloadIsPrintedWithoutOne) {
  auto top = joinAggregating(0);
  auto child = join(1);
  child.process().call({{"call", "finish"}});
  ASSERT_TRUE(top.process().awaitEvent([](const Dictionary& event) {
    return integerAt(event, "type") == 2 && event.find("payload")->isNull();
  }));
}

TEST_F(ChainDeliveries, TheStartAndTheEndOfAChildAreDeliveredToo) {
  auto top = joinAggregating(0);
  auto child = join(1);
  const Dictionary info = child.sessionInfo();
  const auto isOfChild = [&](std::int64_t type) {
    return [&info, type](const Dictionary& event) {
      const Dictionary* message = dictionaryAt(event, "message");
      return message && *message == info && integerAt(event, "category") == 0 &&
             integerAt(event, "type") == type;
    };
  };
  EXPECT_TRUE(top.process().awaitEvent(isOfChild(0)));
  child.process().kill();
  ASSERT_TRUE(top.process().awaitEvent(isOfChild(1)));
  EXPECT_EQ(*stringAt(*dictionaryAt(top.process().events().back(), "payload"), "StorebagVersion"),
            "level 1");
}

TEST_F(ChainDeliveries, ATopThatAggregatesShutsDownThoseWhoCameBefore) {
  auto grandchild = joinAggregating(2);
  auto child = joinAggregating(1);
  EXPECT_TRUE(grandchild.process().awaitEvent(isShutdown()));
  grandchild.send("to the child");
  EXPECT_TRUE(child.process().awaitEvent(hasMark("to the child")));
  auto top = joinAggregating(0);
  EXPECT_TRUE(child.process().awaitEvent(isShutdown()));
  grandchild.send("to the top");
  EXPECT_TRUE(top.process().awaitEvent(hasMark("to the top")));
  EXPECT_EQ(child.process().events().back(), shutdownSignal);
}

// The client library

TEST_F(ChainDeliveries, ReachTheBlockOfACPlusPlusClientAndItsShutdownSignal) {
  Heard heard;
  client::Session::Options options;
  options.root = _root.path();
  options.deadline = std::chrono::seconds(10);
  options.message = [&](auto... delivery) { heard.add(delivery...); };
  client::Session session(std::move(options));
  TestClient::Description description{.clientType = ChainMember::clientType(1),
                                      .batches = true,
                                      .clientName = "Player",
                                      .serviceName = "Film"};
  ASSERT_TRUE(session.setSessionInfo(TestClient::sessionInfo(description),
                                     *TestClient::userInfo(description), client::ArrayView(nullptr),
                                     true));
  ASSERT_TRUE(session.startConfig());
  ASSERT_TRUE(waitUntil([&] { return heard.all().size() == 1; }));  // its own start
  auto grandchild = join(2);
  grandchild.send("event");
  ASSERT_TRUE(waitUntil([&] { return heard.all().size() == 3; }));
  const Heard::Delivery event = heard.all().back();
  EXPECT_TRUE(event.hasMessage && event.hasPayload);
  EXPECT_GT(event.timestamp, 1.6e9);
  EXPECT_EQ(event.category, chainCategory);
  EXPECT_EQ(event.type, 2);
  EXPECT_EQ(event.sessionID, integerAt(grandchild.sessionInfo(), "SessionID"));
  EXPECT_EQ(event.mark, "event");
  EXPECT_EQ(event.clientName, "Player");
  auto top = joinAggregating(0);
  ASSERT_TRUE(waitUntil([&] { return heard.all().size() == 4; }));
  const Heard::Delivery signal = heard.all().back();
  EXPECT_FALSE(signal.hasMessage || signal.hasPayload);
  EXPECT_EQ(signal.timestamp + signal.category + signal.type, 0);
}

TEST_F(ChainDeliveries, ReachTheBlockOfACClient) {
  Heard heard;
  corvid_options_t options = CORVID_OPTIONS_INIT;
  options.root = _root.path().c_str();
  options.deadline_ms = 10000;
  options.context = &heard;
  options.message = [](void* context, const corvid_dictionary_t* message, double timestamp,
                       std::uint16_t messageCategory, std::uint16_t type,
                       const corvid_dictionary_t* payload) {
    static_cast<Heard*>(context)->add(client::DictionaryView(message), timestamp, messageCategory,
                                      type, client::DictionaryView(payload));
  };
  corvid_session_t* session = nullptr;
  ASSERT_EQ(corvid_session_create(&options, &session), CORVID_OK);
  const TestClient::Description description{.clientType = ChainMember::clientType(0),
                                            .batches = true,
                                            .clientName = "Player",
                                            .serviceName = "Film"};
  EXPECT_EQ(corvid_session_set_session_info(session, TestClient::sessionInfo(description).get(),
                                            TestClient::userInfo(description)->get(), nullptr, true,
                                            nullptr, nullptr),
            CORVID_OK);
  EXPECT_EQ(corvid_session_start_config(session, nullptr, nullptr, nullptr), CORVID_OK);
  EXPECT_TRUE(waitUntil([&] { return heard.all().size() == 1; }));
  {
    auto child = join(1);
    child.send("event");
    EXPECT_TRUE(waitUntil([&] { return heard.all().size() == 3; }));
    EXPECT_EQ(heard.all().back().mark, "event");
  }
  corvid_session_destroy(session);
}

// Clients that are slow, gone or dying

TEST_F(ChainDeliveries, ToATopThatDoesNotReadAreBoundedAndHoldNobodyUp) {
  auto top = joinAggregating(0);
  const auto child = startChild();
  top.process().signal(SIGSTOP);
  constexpr int events = 3000;
  client::Dictionary payload;
  (void)payload.set("filler", std::string_view(std::string(4000, 'x')));
  std::vector<TestClient::Outcome> outcomes;
  for (int i = 0; i < events; ++i) {
    (void)payload.set("number", i);
    (void)payload.set("mark", "flood");
    outcomes.push_back(child->send(payload));
    if (i % 100 == 99) outcomes.push_back(child->flush());
  }
  for (const auto& outcome : outcomes) {
    const std::string text = outcome.text();
    ASSERT_TRUE(text == "none" || text == "flushed") << text;
  }
  EXPECT_EQ(timesLogged("does not take its deliveries, the oldest are dropped"), 1u);
  // The collector got everything, the aggregator the last.
  EXPECT_TRUE(waitUntil([&] { return arrivals("flood") == events; }));
  top.process().signal(SIGCONT);
  EXPECT_EQ(child->send("last").text(), "none");
  ASSERT_TRUE(top.process().awaitEvent(hasMark("last")));
  std::vector<std::int64_t> numbers;
  for (const Dictionary& event : top.process().events())
    if (hasMark("flood")(event))
      numbers.push_back(integerAt(*dictionaryAt(event, "payload"), "number").value_or(-1));
  EXPECT_GT(numbers.size(), 100u);
  EXPECT_LT(numbers.size(), static_cast<std::size_t>(events));
  EXPECT_TRUE(std::ranges::is_sorted(numbers));
  EXPECT_EQ(numbers.back(), events - 1);
  EXPECT_EQ(timesLogged("does not take its deliveries, the oldest are dropped"), 1u);
}

TEST_F(ChainDeliveries, ToATopThatIsGoneGoToNobodyUntilAnotherComes) {
  auto top = joinAggregating(0);
  auto child = join(1);
  child.sendAndFlush("to the first");
  EXPECT_TRUE(top.process().awaitEvent(hasMark("to the first")));
  top.process().kill();
  EXPECT_TRUE(endMessageOfLevel(0));
  child.sendAndFlush("to nobody");
  auto next = joinAggregating(0);
  child.sendAndFlush("to the next");
  EXPECT_TRUE(next.process().awaitEvent(hasMark("to the next")));
  for (const Dictionary& event : next.process().events()) EXPECT_FALSE(hasMark("to nobody")(event));
  EXPECT_EQ(textOf("to nobody"), top.identifier + "." + child.identifier);
  EXPECT_EQ(textOf("to the next"), next.identifier + "." + child.identifier);
}

TEST_F(ChainDeliveries, ToATopThatDiesInTheMiddleCostItsChildNothing) {
  const auto child = startChild();
  std::atomic<bool> over = false;
  std::atomic<int> answered = 0;
  std::thread flood([&] {
    while (!over) {
      std::vector<TestClient::Outcome> outcomes;
      for (int i = 0; i < 50; ++i) outcomes.push_back(child->send("flood"));
      outcomes.push_back(child->flush());
      for (const auto& outcome : outcomes) {
        const std::string text = outcome.text();
        EXPECT_TRUE(text == "none" || text == "flushed") << text;
        if (text == "none") ++answered;
      }
    }
  });
  for (int death = 0; death < 8; ++death) {
    ClientProcess top(_root.path());
    top.call({{"call", "setSessionInfo"},
              {"sessionInfo", Dictionary{{"ClientType", ChainMember::clientType(0)},
                                         {"SessionID", 100 + death},
                                         {"RequireUserInfo", true},
                                         {"BatchEvent", true}}},
              {"userInfo", ChainMember::userInfo("Player")},
              {"hasAggregationBlock", true}});
    top.call({{"call", "startConfig"}});
    EXPECT_TRUE(top.awaitEvent(hasMark("flood"))) << death;
    top.kill();
  }
  over = true;
  flood.join();
  EXPECT_TRUE(waitUntil([&] { return arrivals("flood") == static_cast<std::size_t>(answered); }));
  EXPECT_EQ(timesLogged("ends by an exception"), 0u);
  EXPECT_EQ(_daemon->waitForExit(std::chrono::milliseconds(0)), std::nullopt);
}

TEST_F(ChainDeliveries, OfAChildThatDiesInTheMiddleEndWithItsEndMessage) {
  auto top = joinAggregating(0);
  auto child = join(1);
  const Dictionary info = child.sessionInfo();
  for (int i = 0; i < 20; ++i) child.send("event");
  child.process().kill();
  ASSERT_TRUE(top.process().awaitEvent([&](const Dictionary& event) {
    const Dictionary* message = dictionaryAt(event, "message");
    return message && *message == info && integerAt(event, "category") == 0 &&
           integerAt(event, "type") == 1;
  }));
  EXPECT_EQ(std::ranges::count_if(top.process().events(), hasMark("event")), 20);
}

}  // namespace
}  // namespace corvid
