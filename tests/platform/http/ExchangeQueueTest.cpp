#include <gtest/gtest.h>

#include "platform/http/ExchangeQueue.h"

namespace corvid {
namespace {

using namespace std::chrono_literals;
constexpr Exchange::Time start{};

Exchange exchange(std::string host, std::string url, std::chrono::seconds deadline = 60s) {
  Exchange made;
  made.host = std::move(host);
  made.url = std::move(url);
  made.deadline = start + deadline;
  return made;
}

class ExchangeQueueTest : public testing::Test {
 protected:
  // The URL of the next one, "" where none has its turn.
  std::string next() {
    const auto found = queue.next();
    return found ? found->url : "";
  }
  std::vector<std::string> expired(std::chrono::seconds now) {
    std::vector<std::string> urls;
    for (const auto& one : queue.removeExpired(start + now)) urls.push_back(one.url);
    return urls;
  }

  ExchangeQueue queue{{.exchanges = 4, .bytes = 100, .hosts = 1, .activePerHost = 2}};
};

TEST_F(ExchangeQueueTest, ServesAHostInOrder) {
  queue.add(exchange("a", "a1"));
  queue.add(exchange("a", "a2"));
  EXPECT_EQ(queue.waiting(), 2u);
  EXPECT_EQ(next(), "a1");
  EXPECT_EQ(next(), "a2");
  EXPECT_EQ(next(), "");
  EXPECT_EQ(queue.waiting(), 0u);
}

TEST_F(ExchangeQueueTest, ServesHostsInTurn) {
  for (const char* url : {"a1", "a2"}) queue.add(exchange("a", url));
  for (const char* url : {"b1", "b2"}) queue.add(exchange("b", url));
  EXPECT_EQ(next(), "a1");
  EXPECT_EQ(next(), "b1");
  EXPECT_EQ(next(), "a2");
  EXPECT_EQ(next(), "b2");
}

TEST_F(ExchangeQueueTest, AHostHasOnlySoManyActive) {
  for (const char* url : {"a1", "a2", "a3"}) queue.add(exchange("a", url));
  queue.add(exchange("b", "b1"));
  EXPECT_EQ(next(), "a1");
  EXPECT_EQ(next(), "b1");
  EXPECT_EQ(next(), "a2");
  EXPECT_EQ(next(), "");
  queue.finished("b");
  EXPECT_EQ(next(), "");
  queue.finished("a");
  EXPECT_EQ(next(), "a3");
}

TEST_F(ExchangeQueueTest, IsFullByCount) {
  for (int i = 0; i < 4; ++i) {
    EXPECT_FALSE(queue.isFull("a"));
    queue.add(exchange("a", "a"));
  }
  EXPECT_TRUE(queue.isFull("a"));
  next();
  EXPECT_FALSE(queue.isFull("a"));
}

TEST_F(ExchangeQueueTest, IsFullByBytes) {
  queue.add(exchange("a", std::string(99, 'x')));
  EXPECT_FALSE(queue.isFull("a"));
  queue.add(exchange("a", std::string(500, 'x')));
  EXPECT_TRUE(queue.isFull("a"));
  next();
  EXPECT_TRUE(queue.isFull("a"));
  next();
  EXPECT_FALSE(queue.isFull("a"));
}

TEST_F(ExchangeQueueTest, AHostFillsItsShareOnly) {
  ExchangeQueue shared{{.exchanges = 8, .bytes = 100, .hosts = 4, .activePerHost = 2}};
  shared.add(exchange("a", "a1"));
  EXPECT_FALSE(shared.isFull("a"));
  shared.add(exchange("a", "a2"));
  EXPECT_TRUE(shared.isFull("a"));
  EXPECT_FALSE(shared.isFull("b"));
  shared.add(exchange("b", std::string(25, 'x')));
  EXPECT_TRUE(shared.isFull("b"));
  EXPECT_FALSE(shared.isFull("c"));
  EXPECT_TRUE(shared.next());
  EXPECT_FALSE(shared.isFull("a"));
  EXPECT_EQ(shared.removeExpired(start + 60s).size(), 2u);
  EXPECT_FALSE(shared.isFull("b"));
}

TEST_F(ExchangeQueueTest, ManyHostsFillTheQueueTogether) {
  ExchangeQueue shared{{.exchanges = 8, .bytes = 1000, .hosts = 4, .activePerHost = 2}};
  for (const char* host : {"a", "b", "c", "d"})
    for (int i = 0; i < 2; ++i) shared.add(exchange(host, "x"));
  EXPECT_TRUE(shared.isFull("e"));
}

TEST_F(ExchangeQueueTest, ABodyLargerThanEverythingTakesNoRoomFromOtherHosts) {
  ExchangeQueue shared{{.exchanges = 8, .bytes = 1000, .hosts = 4, .activePerHost = 1}};
  Exchange large = exchange("a", "a1");
  large.body.resize(5000);
  shared.add(std::move(large));
  EXPECT_TRUE(shared.isFull("a"));
  for (const char* host : {"b", "c", "d"}) {
    EXPECT_FALSE(shared.isFull(host));
    Exchange full = exchange(host, host);
    full.body.resize(250);
    shared.add(std::move(full));
  }
  EXPECT_TRUE(shared.isFull("e"));
  EXPECT_EQ(shared.next()->url, "a1");
  EXPECT_FALSE(shared.isFull("e"));
  EXPECT_EQ(shared.removeAll().size(), 3u);
  EXPECT_FALSE(shared.isFull("b"));
}

TEST_F(ExchangeQueueTest, GivesUpThoseWhoseTimeIsOver) {
  queue.add(exchange("a", "a60", 60s));
  queue.add(exchange("a", "a15", 15s));
  queue.add(exchange("b", "b20", 20s));
  EXPECT_EQ(queue.nextDeadline(), start + 15s);
  EXPECT_TRUE(expired(14s).empty());
  EXPECT_EQ(expired(15s), std::vector<std::string>{"a15"});
  EXPECT_EQ(queue.nextDeadline(), start + 20s);
  EXPECT_EQ(expired(60s), (std::vector<std::string>{"a60", "b20"}));
  EXPECT_EQ(queue.nextDeadline(), Exchange::Time::max());
  EXPECT_EQ(queue.waiting(), 0u);
  EXPECT_FALSE(queue.isFull("a"));
}

TEST_F(ExchangeQueueTest, ADeadlineThatIsServedIsNoLongerWaitedFor) {
  queue.add(exchange("a", "a1", 15s));
  EXPECT_EQ(next(), "a1");
  EXPECT_EQ(queue.nextDeadline(), Exchange::Time::max());
  queue.add(exchange("a", "a2", 60s));
  EXPECT_EQ(queue.nextDeadline(), start + 60s);
}

TEST_F(ExchangeQueueTest, AnExpiredExchangeLeavesItsHostsCountAlone) {
  for (const char* url : {"a1", "a2"}) queue.add(exchange("a", url));
  next();
  next();
  queue.add(exchange("a", "a3", 1s));
  EXPECT_EQ(expired(1s), std::vector<std::string>{"a3"});
  queue.add(exchange("a", "a4"));
  EXPECT_EQ(next(), "");
  queue.finished("a");
  EXPECT_EQ(next(), "a4");
}

TEST_F(ExchangeQueueTest, RemovesAll) {
  queue.add(exchange("a", "a1"));
  queue.add(exchange("b", "b1"));
  EXPECT_EQ(queue.removeAll().size(), 2u);
  EXPECT_EQ(queue.waiting(), 0u);
}

}  // namespace
}  // namespace corvid
