// Records in frames are what they would be in one piece.
#include <gtest/gtest.h>

#include <random>

#include "backends/https/EventRecord.h"
#include "platform/data/JSON.h"
#include "tests/fakes/TestPlatform.h"

namespace corvid {
namespace {

// What a backend makes records from.
struct State {
  BackendIdentity identity{};
  ClientPolicy policy{};
  std::optional<double> samplingThreshold{};
  std::optional<std::string> combinedSessionID{};
  SharedDictionary userInfo{};

  RecordContext context(std::uint16_t eventID = 1) const {
    return {.platform = Platform::current(),
            .identity = identity,
            .policy = policy,
            .samplingThreshold = samplingThreshold,
            .combinedSessionID = combinedSessionID,
            .eventID = eventID,
            .userInfo = userInfo};
  }
};

std::shared_ptr<const RecordFrame> frameOf(const State& state) {
  return std::make_shared<const RecordFrame>(state.context());
}

// Whatever a client, a device and a storebag may come up with.
class Anything {
 public:
  explicit Anything(std::uint32_t seed) : _random(seed) {}

  State state() {
    State state;
    state.identity = {.sessionID = 99,
                      .compType = oneOf({5, 7}),
                      .clientVersion = static_cast<std::uint16_t>(below(65536)),
                      .productVersion = maybeText(),
                      .buildVersion = maybeText(),
                      .hardwareType = maybeText(),
                      .productFamily = maybeText(),
                      .isInternal = below(4) == 0,
                      .selfVersionMajor = 8};
    state.identity.startTimeStamp = 1.7e9 + static_cast<double>(below(100'000)) / 7;
    state.combinedSessionID = maybeText();
    state.policy.filters = std::make_shared<const EventFilters>(filters());
    if (below(3) > 0) state.userInfo = std::make_shared<const Dictionary>(userInfo());
    return state;
  }
  Dictionary payload() {
    Dictionary payload;
    for (std::uint32_t n = below(8); n > 0; --n) payload.set(key(below(4) > 0), value(8));
    return payload;
  }
  std::uint32_t below(std::uint32_t bound) { return static_cast<std::uint32_t>(_random() % bound); }

 private:
  template <class T>
  T oneOf(std::initializer_list<T> all) {
    return all.begin()[below(static_cast<std::uint32_t>(all.size()))];
  }
  std::string key(bool isOwn) {
    if (isOwn)
      return oneOf<const char*>({"title", "n", "", "a rather long key, for a key", "Opt", "\"",
                                 "gr\u00fc\u00dfe", "Title", "secret", "x"});
    return oneOf<const char*>({"_method", "_status", "eventTime", "_clientTS", "_eventNumber",
                               "_sessionID", "_clientName", "_serviceName", "_startTS", "_build",
                               "_timezoneOffset", "_osVersion"});
  }
  std::string text() {
    return oneOf<const char*>({"", "short", "one that is longer than strings keep in themselves",
                               "\n\\\"", "\u65e5\u672c", "12.3", "TOP.OWN"});
  }
  std::optional<std::string> maybeText() {
    return below(5) > 0 ? std::optional(text()) : std::nullopt;
  }
  // `kinds`: 4 for those that JSON has.
  Value value(std::uint32_t kinds) {
    switch (below(kinds)) {
      case 0: return static_cast<std::int64_t>(below(100'000)) - 50'000;
      case 1: return static_cast<double>(below(100'000)) / 8;
      case 2: return below(2) == 0;
      case 4: return below(5) == 0 ? Value(Date{17.5}) : text();
      case 5: return below(5) == 0 ? Value(Array{1, "x"}) : text();
      case 6: return below(9) == 0 ? Value(std::string("\xff")) : text();
      default: return text();
    }
  }
  Dictionary userInfo() {
    Dictionary info{{"_clientName", "player"}};
    for (std::uint32_t n = below(4); n > 0; --n) info.set(key(below(3) > 0), value(8));
    if (below(20) == 0)
      for (int n = 0; n < 60; ++n) info.set("many" + std::to_string(n), value(4));
    return info;
  }
  Array filters() {
    Array filters;
    for (std::uint32_t n = below(4); n > 0; --n) {
      Dictionary filter{{"key", key(below(8) > 0)},
                        {"action", oneOf<const char*>({"remove", "sha256", "keep"})}};
      if (below(3) == 0) filter.set("method", oneOf({0, 3}));
      if (below(3) == 0) filter.set("status", oneOf({1, 4}));
      filters.emplace_back(filter);
    }
    return filters;
  }

  std::mt19937 _random;
};

std::optional<std::string> textOf(const EventRecord& record) {
  JSONText text;
  text.beginObject();
  text.key("record");
  record.writeTo(text);
  text.endObject();
  return text.take();
}

struct RecordFrameTest : testing::Test {
  TestPlatform platform;
};

TEST_F(RecordFrameTest, ARecordInAFrameIsTheSameAsInOnePiece) {
  Anything anything(26);
  int framed = 0;
  constexpr int rounds = 20'000;
  for (int round = 0; round < rounds; ++round) {
    const State state = anything.state();
    const Dictionary payload = anything.payload();
    const bool hasPayload = anything.below(10) > 0;
    const TimeValue time{1'700'000'000 + anything.below(5000), 123'456};
    const Event event{.payload = hasPayload ? &payload : nullptr,
                      .timestamp = time,
                      .method = static_cast<std::uint16_t>(anything.below(5)),
                      .respCode = static_cast<std::uint16_t>(anything.below(5))};
    const RecordContext context = state.context(static_cast<std::uint16_t>(anything.below(65536)));
    const auto frame = frameOf(state);

    Dictionary whole = payloadOf(event, context);
    framed += frame->fits(whole);
    whole = createEventDictfromPayload(std::move(whole), numbersOf(event, context), context);
    KeysChanged changed;
    prepareEventForMessage(whole, state.userInfo.get(), *state.policy.filters, changed);
    const EventRecord expected(whole);

    KeysChanged changedInFrame;
    EventRecord record = makeEventRecord(event, context, frame, changedInFrame);
    ASSERT_EQ(textOf(record), textOf(expected)) << round;
    // In one piece a key may be left with the room of one that was removed in front of it.
    if (changed.names(KeysChanged::Change::removed).empty()) {
      ASSERT_EQ(record.footprint(), footprint(whole)) << round;
    }
    ASSERT_LE(record.footprint(), footprint(whole)) << round;
    ASSERT_EQ(record.mostJSONBytes(), mostJSONBytes(whole)) << round;
    ASSERT_EQ(record.method(), expected.method()) << round;
    ASSERT_EQ(changedInFrame, changed) << round;
    ASSERT_EQ(textOf(record.copy()), textOf(expected)) << round;
    record.whole().set("_sessionID", "another");
    whole.set("_sessionID", "another");
    ASSERT_EQ(textOf(record), textOf(whole)) << round;
  }
  EXPECT_GT(framed, rounds / 10);
  EXPECT_LT(framed, rounds - rounds / 10);
}

TEST_F(RecordFrameTest, FitsWhatHasNoneOfItsKeys) {
  State state;
  state.userInfo = std::make_shared<const Dictionary>(Dictionary{{"account", "abc"}});
  const auto frame = frameOf(state);
  EXPECT_TRUE(frame->fits({}));
  EXPECT_TRUE(frame->fits({{"title", "Song"}, {"Account", 1}}));
  for (const char* key : {"_method", "_startTS", "_timezoneOffset", "account"})
    EXPECT_FALSE(frame->fits({{"title", "Song"}, {key, 1}})) << key;
}

TEST_F(RecordFrameTest, FitsNothingWhereAFilterIsAboutOneOfItsKeys) {
  for (const char* key : {"_SENDER", "_status", "Account"}) {
    State state;
    state.userInfo = std::make_shared<const Dictionary>(Dictionary{{"account", "abc"}});
    state.policy.filters = std::make_shared<const EventFilters>(Array{Dictionary{{"key", key}}});
    EXPECT_FALSE(frameOf(state)->fits({})) << key;
  }
}

TEST_F(RecordFrameTest, FitsNothingWhereTheUserInfoHoldsMoreThanJSONOrTheEventsOwnNumbers) {
  for (const Dictionary& userInfo :
       {Dictionary{{"d", Date{1}}}, Dictionary{{"a", Array{1}}}, Dictionary{{"t", "\xff"}},
        Dictionary{{"_method", 3}}, Dictionary{{"eventTime", 3}}}) {
    State state;
    state.userInfo = std::make_shared<const Dictionary>(userInfo);
    EXPECT_FALSE(frameOf(state)->fits({})) << userInfo.begin()->key;
  }
}

TEST_F(RecordFrameTest, ServesUntilSomethingChangesThatItIsMadeFrom) {
  const State before{.combinedSessionID = "TOP.OWN"};
  const auto frame = frameOf(before);
  EXPECT_TRUE(frame->isOf(before.context(17)));
  State state = before;
  state.combinedSessionID = "OTHER.OWN";
  EXPECT_FALSE(frame->isOf(state.context()));
  state = before;
  state.userInfo = std::make_shared<const Dictionary>();
  EXPECT_FALSE(frame->isOf(state.context()));
  state = before;
  state.policy.filters = std::make_shared<const EventFilters>();
  EXPECT_FALSE(frame->isOf(state.context()));
  platform.locale->offset = -12'600;
  EXPECT_FALSE(frame->isOf(before.context()));
  EXPECT_TRUE(frameOf(before)->isOf(before.context()));
}

}  // namespace
}  // namespace corvid
