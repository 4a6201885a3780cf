// The header for C++: values that go in and out, and a session before the stand-in for a daemon.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <corvid/corvid.hpp>
#include <cstddef>
#include <future>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace corvid::client {
namespace {

using testing::ElementsAre;

enum Shade { dark = 3 };

TEST(DictionaryOfHeader, TakesEveryIntegralAndFloatingType) {
  Dictionary dictionary;
  EXPECT_TRUE(dictionary.set("short", static_cast<short>(-1)));
  EXPECT_TRUE(dictionary.set("char", 'c'));
  EXPECT_TRUE(dictionary.set("unsigned", 2u));
  EXPECT_TRUE(dictionary.set("long", 3l));
  EXPECT_TRUE(dictionary.set("long long", -4ll));
  EXPECT_TRUE(dictionary.set("size", std::size_t{5}));
  EXPECT_TRUE(dictionary.set("enumeration", dark));
  EXPECT_TRUE(dictionary.set("float", 1.5f));
  EXPECT_TRUE(dictionary.set("boolean", true));
  EXPECT_EQ(dictionary["short"].integer(), -1);
  EXPECT_EQ(dictionary["char"].integer(), 'c');
  EXPECT_EQ(dictionary["unsigned"].integer(), 2);
  EXPECT_EQ(dictionary["long"].integer(), 3);
  EXPECT_EQ(dictionary["long long"].integer(), -4);
  EXPECT_EQ(dictionary["size"].integer(), 5);
  EXPECT_EQ(dictionary["enumeration"].integer(), 3);
  EXPECT_EQ(dictionary["float"].real(), 1.5);
  EXPECT_EQ(dictionary["boolean"].boolean(), true);
}

TEST(DictionaryOfHeader, TakesEveryKindOfText) {
  const std::string text = "text";
  char letters[] = "letters";
  const Dictionary dictionary{{"literal", "a"},
                              {"string", text},
                              {"view", std::string_view("b\0c", 3)},
                              {"array", letters},
                              {std::string("key"), std::string("d")},
                              {"utf8", u8"\u00e4"}};
  ASSERT_TRUE(dictionary.status());
  EXPECT_EQ(dictionary["literal"].string(), "a");
  EXPECT_EQ(dictionary["string"].string(), "text");
  EXPECT_EQ(dictionary["view"].string(), std::string_view("b\0c", 3));
  EXPECT_EQ(dictionary["array"].string(), "letters");
  EXPECT_EQ(dictionary["key"].string(), "d");
  EXPECT_EQ(dictionary["utf8"].string(), "\xc3\xa4");
}

TEST(DictionaryOfHeader, TakesTheLargestNumberAndRefusesWhatIsLarger) {
  constexpr auto largest = std::numeric_limits<std::int64_t>::max();
  Dictionary dictionary;
  EXPECT_TRUE(dictionary.set("n", static_cast<std::uint64_t>(largest)));
  EXPECT_EQ(dictionary.set("n", static_cast<std::uint64_t>(largest) + 1).code(),
            CORVID_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(dictionary["n"].integer(), largest);
}

TEST(DictionaryOfHeader, SetsMayBeChained) {
  Dictionary dictionary;
  EXPECT_TRUE(dictionary.set("a", 1).set("b", "two").set("c", nullptr));
  EXPECT_EQ(dictionary.size(), 3u);
}

TEST(DictionaryOfHeader, RemembersTheFirstFailureThoughLaterSetsSucceed) {
  Dictionary dictionary;
  EXPECT_TRUE(
      dictionary.set("bad", "\xff").set("worse", static_cast<const char*>(nullptr)).set("good", 1));
  EXPECT_EQ(dictionary.status().code(), CORVID_ERROR_INVALID_TEXT);
  EXPECT_EQ(dictionary.size(), 1u);
  const Dictionary copy(dictionary);
  EXPECT_EQ(copy.status().code(), CORVID_ERROR_INVALID_TEXT);
  EXPECT_FALSE((Dictionary{{"nested", dictionary}}.status()));
  dictionary = Dictionary{{"good", 1}};
  EXPECT_TRUE(dictionary.status());
}

TEST(DictionaryOfHeader, IsGoneThroughInTheOrderOfItsKeys) {
  const Dictionary dictionary{
      {"one", 1}, {"two", Array{2, Dictionary{{"deep", 3}}}}, {"three", Date{3.5}}};
  std::vector<std::string> keys;
  for (const auto [key, value] : dictionary) keys.emplace_back(key);
  EXPECT_THAT(keys, ElementsAre("one", "two", "three"));
  EXPECT_EQ(dictionary["two"].array()[1].dictionary()["deep"].integer(), 3);
  EXPECT_EQ(dictionary["three"].date(), 3.5);
}

TEST(ArrayOfHeader, HoldsTheElementsInBraces) {
  Array array{1, "two", 3.0, true, nullptr, Data{"4"}};
  EXPECT_TRUE(array.append(5u).append(std::string("six")));
  std::vector<corvid_type_t> types;
  for (const ValueView value : array) types.push_back(value.type());
  EXPECT_THAT(types, ElementsAre(CORVID_TYPE_INTEGER, CORVID_TYPE_STRING, CORVID_TYPE_REAL,
                                 CORVID_TYPE_BOOLEAN, CORVID_TYPE_NULL, CORVID_TYPE_DATA,
                                 CORVID_TYPE_INTEGER, CORVID_TYPE_STRING));
  EXPECT_EQ(array[5].data(), "4");
}

TEST(ArrayOfHeader, OfNoneIsEmptyAndOfAnotherIsACopy) {
  const Array none(ArrayView(nullptr));
  EXPECT_TRUE(none.status());
  EXPECT_EQ(none.size(), 0u);
  const Array two{1, 2};
  EXPECT_EQ(Array(two).size(), 2u);
}

class SessionOfHeader : public testing::Test {
 protected:
  ~SessionOfHeader() override { corvid_test_sink_destroy(sink); }
  Session::Options options() {
    Session::Options result;
    result.testSink = sink;
    return result;
  }

  corvid_test_sink_t* const sink = corvid_test_sink_create();
};

TEST_F(SessionOfHeader, RefusesValuesThatCouldNotBeMade) {
  Session session(options());
  Dictionary bad;
  EXPECT_FALSE(bad.set("bad", "\xff"));
  Array list;
  EXPECT_FALSE(list.append("\xff"));
  EXPECT_EQ(session.sendMessage(1, 2, bad).code(), CORVID_ERROR_INVALID_TEXT);
  EXPECT_EQ(session.sendMessage(bad).code(), CORVID_ERROR_INVALID_TEXT);
  EXPECT_EQ(session.setSessionInfo(Dictionary(), bad).code(), CORVID_ERROR_INVALID_TEXT);
  EXPECT_EQ(session.setSessionInfo(Dictionary(), Session::none(), list).code(),
            CORVID_ERROR_INVALID_TEXT);
  EXPECT_EQ(session.fetchStates(bad).code(), CORVID_ERROR_INVALID_TEXT);
  EXPECT_EQ(session.uploadLogData(list).code(), CORVID_ERROR_INVALID_TEXT);
  EXPECT_EQ(session.sendSingleMessage(bad, Session::none(), 1, 2).code(),
            CORVID_ERROR_INVALID_TEXT);
  EXPECT_EQ(corvid_test_sink_call_count(sink), 0u);
}

TEST_F(SessionOfHeader, TellsWhyNobodyTookAMessage) {
  corvid_test_answer_t dropped = CORVID_TEST_ANSWER_INIT;
  dropped.reason = "noConsent";
  ASSERT_EQ(corvid_test_sink_answer(sink, CORVID_OPERATION_SEND_MESSAGE, 1, &dropped), CORVID_OK);
  std::promise<std::pair<corvid_disposition_t, std::string>> told;
  Session session(options());
  ASSERT_TRUE(session.sendMessage(7, 2, Dictionary{{"a", 1}}, [&](Status, auto) {
    const Answer answer = Answer::current();
    told.set_value({answer.disposition, std::string(answer.reason.value_or(""))});
  }));
  const auto [disposition, reason] = told.get_future().get();
  EXPECT_EQ(disposition, CORVID_DISPOSITION_DROPPED);
  EXPECT_EQ(reason, "noConsent");
}

TEST_F(SessionOfHeader, TellsStatesWithTheirReasonsInAnswersAndWhenTheyChange) {
  std::promise<std::string> answered, changed;
  auto own = options();
  own.statesChanged = [&](StatesView states) {
    std::string all;
    for (const StatesView::Backend backend : states)
      all.append(backend.name).append("=").append(backend.state).append("/").append(backend.reason);
    changed.set_value(all + " " + std::to_string(states.reporting().size()));
  };
  Session session(std::move(own));
  ASSERT_TRUE(session.startConfig([&](Status, auto) {
    answered.set_value(std::string(Answer::current().states.reason().value_or("(none)")));
  }));
  EXPECT_EQ(answered.get_future().get(), "notConfigured");

  corvid_states_t* const states = corvid_states_create();
  ASSERT_EQ(corvid_states_add(states, "httpPost", "sending", "reporting"), CORVID_OK);
  ASSERT_EQ(corvid_test_sink_change_states(sink, states), CORVID_OK);
  corvid_states_destroy(states);
  EXPECT_EQ(changed.get_future().get(), "httpPost=sending/reporting 1");
}

TEST_F(SessionOfHeader, TellsOfTheFirstConnection) {
  std::promise<void> connected;
  auto own = options();
  own.connected = [&] { connected.set_value(); };
  Session session(std::move(own));
  ASSERT_TRUE(session.connect());
  EXPECT_EQ(connected.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
}

TEST_F(SessionOfHeader, RunsCallbacksWhereAnEventLoopWantsThem) {
  auto own = options();
  own.dispatch = true;
  Session session(std::move(own));
  std::atomic<bool> called = false;
  ASSERT_TRUE(session.sendMessage(7, 2, Session::none(), [&](Status, auto) { called = true; }));
  pollfd readable{session.fd(), POLLIN, 0};
  ASSERT_EQ(poll(&readable, 1, 20000), 1);
  EXPECT_FALSE(called);
  EXPECT_TRUE(session.dispatch());
  EXPECT_TRUE(called);
}

TEST_F(SessionOfHeader, EndsACallThatIsNotAnsweredInItsTime) {
  corvid_test_answer_t withheld = CORVID_TEST_ANSWER_INIT;
  withheld.withheld = true;
  ASSERT_EQ(corvid_test_sink_answer(sink, CORVID_OPERATION_FINISH, 1, &withheld), CORVID_OK);
  auto own = options();
  own.answerDeadline = std::chrono::milliseconds(20);
  Session session(std::move(own));
  std::promise<int> ended;
  ASSERT_TRUE(session.finish([&](Status status, auto) { ended.set_value(status.code()); }));
  EXPECT_EQ(ended.get_future().get(), CORVID_ERROR_TIMED_OUT);
}

}  // namespace
}  // namespace corvid::client
