// What viewers of the page are told, in which order, and what is forgotten.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "base/Text.h"
#include "tests/support/Waiting.h"
#include "tools/lab/Feed.h"

namespace corvid::lab {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::StartsWith;

class FeedTest : public testing::Test {
 protected:
  // All that a viewer there is told until nothing is left.
  std::string rest(Feed::Position& position) {
    std::string all;
    for (;;) {
      const std::string piece = feed.next(position, {}, 0ms);
      if (piece.empty()) return all;
      all += piece;
    }
  }
  std::string everything() {
    Feed::Position start;
    return rest(start);
  }
  static std::size_t times(const std::string& text, std::string_view what) {
    std::size_t count = 0;
    for (std::size_t at = text.find(what); at != text.npos; at = text.find(what, at + 1)) ++count;
    return count;
  }

  Feed feed;
};

TEST_F(FeedTest, AnEntryComesWithItsNumberAndTheTime) {
  feed.add({{"server", "events"}});
  EXPECT_THAT(everything(), StartsWith("id: " + feed.run() +
                                       "-1\nevent: entry\ndata: {\"server\":\"events\",\"time\":"));
}

TEST_F(FeedTest, AViewerGetsEachEntryOnceAndInOrder) {
  feed.add({{"n", 1}});
  Feed::Position position;
  EXPECT_THAT(rest(position), HasSubstr("{\"n\":1"));
  EXPECT_EQ(rest(position), "");
  feed.add({{"n", 2}});
  feed.add({{"n", 3}});
  const std::string news = rest(position);
  EXPECT_EQ(times(news, "\"n\":1"), 0u);
  EXPECT_LT(news.find("\"n\":2"), news.find("\"n\":3"));
}

TEST_F(FeedTest, AStateIsToldWhenItChangesAndToWhoeverComes) {
  feed.setState("faults", {{"a", 1}});
  Feed::Position position;
  EXPECT_EQ(rest(position), "event: faults\ndata: {\"a\":1}\n\n");
  feed.setState("faults", {{"a", 1}});
  EXPECT_EQ(rest(position), "");
  feed.setState("faults", {{"a", 2}});
  feed.setState("lab", {{"b", 3}});
  EXPECT_EQ(rest(position), "event: faults\ndata: {\"a\":2}\n\nevent: lab\ndata: {\"b\":3}\n\n");
  EXPECT_EQ(everything(), "event: faults\ndata: {\"a\":2}\n\nevent: lab\ndata: {\"b\":3}\n\n");
}

TEST_F(FeedTest, AViewerThatComesAgainGoesOnBehindItsLastEntry) {
  for (int n = 1; n <= 3; ++n) feed.add({{"n", n}});
  Feed::Position position = feed.positionAfter(feed.run() + "-2");
  const std::string news = rest(position);
  EXPECT_EQ(times(news, "event: entry"), 1u);
  EXPECT_THAT(news, HasSubstr("\"n\":3"));
  for (const std::string& id : {std::string(), std::string("other-2"), feed.run() + "-x"})
    EXPECT_EQ(feed.positionAfter(id).entry, 0u) << id;
}

TEST_F(FeedTest, AViewerOfWhatNeverWasWaitsForWhatComes) {
  Feed::Position position = feed.positionAfter(feed.run() + "-99");
  feed.add({{"n", 1}});
  EXPECT_EQ(rest(position), "");
}

TEST_F(FeedTest, TheOldestEntriesAreForgottenAndCounted) {
  for (std::size_t n = 0; n < Feed::mostEntries + 5; ++n) feed.add({{"n", n}});
  const std::string all = everything();
  EXPECT_THAT(all, StartsWith("event: lost\ndata: {\"lost\":5}\n\n"));
  EXPECT_EQ(times(all, "event: entry"), Feed::mostEntries);
  EXPECT_EQ(times(all, "\"n\":4,"), 0u);
  EXPECT_EQ(times(all, "\"n\":5,"), 1u);
}

TEST_F(FeedTest, EntriesAreForgottenByTheirBytesToo) {
  const std::string content(Feed::shownBytes / 2, 'x');
  for (int n = 0; n < 200; ++n) feed.add({{"content", content}});
  EXPECT_LE(everything().size(), Feed::mostBytes + 100'000);
}

TEST_F(FeedTest, WhatIsTooLongIsSaidInItsPlace) {
  feed.add({{"server", "logData"}, {"bytes", 7}, {"content", std::string(Feed::shownBytes, 'x')}});
  const std::string all = everything();
  EXPECT_LT(all.size(), 300u);
  EXPECT_THAT(all, HasSubstr("bytes, too many to show\",\"server\":\"logData\",\"bytes\":7,"));
}

TEST_F(FeedTest, WhatJSONCannotHoldIsSaidInItsPlace) {
  feed.add({{"server", "events"}, {"content", "\xff"}});
  EXPECT_THAT(everything(),
              HasSubstr("\"note\":\"something that JSON cannot hold\",\"server\":\"events\""));
}

TEST_F(FeedTest, AWaitEndsWithNewsWithItsTimeOrWithAStop) {
  Feed::Position position;
  EXPECT_EQ(feed.next(position, {}, 1ms), "");
  std::jthread sender([this] { feed.add({{"n", 1}}); });
  EXPECT_THAT(feed.next(position, {}, patience), HasSubstr("\"n\":1"));
  std::stop_source stop;
  std::jthread stopper([&] { stop.request_stop(); });
  EXPECT_EQ(feed.next(position, stop.get_token(), 1h), "");
}

TEST_F(FeedTest, ViewersFollowWhileEntriesCome) {
  constexpr int count = 2000;
  std::vector<std::string> told(3);
  {
    std::vector<std::jthread> viewers;
    for (std::string& text : told)
      viewers.emplace_back([this, &text] {
        Feed::Position position;
        while (times(text, "\"last\":true") == 0) text += feed.next(position, {}, patience);
      });
    for (int n = 0; n < count; ++n) feed.add({{"n", n}});
    feed.add({{"last", true}});
  }
  for (const std::string& text : told) EXPECT_EQ(times(text, "event: entry"), count + 1u);
}

}  // namespace
}  // namespace corvid::lab
