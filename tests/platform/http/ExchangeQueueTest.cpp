#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/http/ExchangeQueue.h"

namespace corvid {
namespace {

using namespace std::chrono_literals;
constexpr Exchange::Time start{};
constexpr User user = 1000;
constexpr User other = 1001;
constexpr User third = 1002;

Exchange exchange(std::string host, std::string url, std::chrono::seconds deadline = 60s,
                  User of = user) {
  Exchange made;
  made.user = of;
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

  // Of a host four exchanges, 100 bytes and two connections.
  ExchangeQueue queue{{.exchanges = 8, .bytes = 200, .active = 4, .hosts = 2}};
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
  queue.finished("b", user);
  EXPECT_EQ(next(), "");
  queue.finished("a", user);
  EXPECT_EQ(next(), "a3");
}

TEST_F(ExchangeQueueTest, IsFullByCount) {
  for (int i = 0; i < 4; ++i) {
    EXPECT_FALSE(queue.isFull("a", user));
    queue.add(exchange("a", "a"));
  }
  EXPECT_TRUE(queue.isFull("a", user));
  next();
  EXPECT_FALSE(queue.isFull("a", user));
}

TEST_F(ExchangeQueueTest, IsFullByBytes) {
  queue.add(exchange("a", std::string(99, 'x')));
  EXPECT_FALSE(queue.isFull("a", user));
  queue.add(exchange("a", std::string(500, 'x')));
  EXPECT_TRUE(queue.isFull("a", user));
  next();
  EXPECT_TRUE(queue.isFull("a", user));
  next();
  EXPECT_FALSE(queue.isFull("a", user));
}

TEST_F(ExchangeQueueTest, AHostFillsItsShareOnly) {
  ExchangeQueue shared{{.exchanges = 8, .bytes = 100, .active = 8, .hosts = 4}};
  shared.add(exchange("a", "a1"));
  EXPECT_FALSE(shared.isFull("a", user));
  shared.add(exchange("a", "a2"));
  EXPECT_TRUE(shared.isFull("a", user));
  EXPECT_FALSE(shared.isFull("b", user));
  shared.add(exchange("b", std::string(25, 'x')));
  EXPECT_TRUE(shared.isFull("b", user));
  EXPECT_FALSE(shared.isFull("c", user));
  EXPECT_TRUE(shared.next());
  EXPECT_FALSE(shared.isFull("a", user));
  EXPECT_EQ(shared.removeExpired(start + 60s).size(), 2u);
  EXPECT_FALSE(shared.isFull("b", user));
}

TEST_F(ExchangeQueueTest, ManyHostsFillTheQueueTogether) {
  ExchangeQueue shared{{.exchanges = 8, .bytes = 1000, .active = 8, .hosts = 4}};
  for (const char* host : {"a", "b", "c", "d"})
    for (int i = 0; i < 2; ++i) shared.add(exchange(host, "x"));
  EXPECT_TRUE(shared.isFull("e", user));
}

TEST_F(ExchangeQueueTest, ABodyLargerThanEverythingTakesNoRoomFromOtherHosts) {
  ExchangeQueue shared{{.exchanges = 8, .bytes = 1000, .active = 4, .hosts = 4}};
  Exchange large = exchange("a", "a1");
  large.body.resize(5000);
  shared.add(std::move(large));
  EXPECT_TRUE(shared.isFull("a", user));
  for (const char* host : {"b", "c", "d"}) {
    EXPECT_FALSE(shared.isFull(host, user));
    Exchange full = exchange(host, host);
    full.body.resize(250);
    shared.add(std::move(full));
  }
  EXPECT_TRUE(shared.isFull("e", user));
  EXPECT_EQ(shared.next()->url, "a1");
  EXPECT_FALSE(shared.isFull("e", user));
  EXPECT_EQ(shared.removeAll().size(), 3u);
  EXPECT_FALSE(shared.isFull("b", user));
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
  EXPECT_FALSE(queue.isFull("a", user));
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
  queue.finished("a", user);
  EXPECT_EQ(next(), "a4");
}

TEST_F(ExchangeQueueTest, RemovesAll) {
  queue.add(exchange("a", "a1"));
  queue.add(exchange("b", "b1"));
  EXPECT_EQ(queue.removeAll().size(), 2u);
  EXPECT_EQ(queue.waiting(), 0u);
}

// ---- Users

class ExchangeQueueUsersTest : public ExchangeQueueTest {
 protected:
  void add(const std::string& host, User of, int count) {
    for (int i = 0; i < count; ++i)
      queue.add(exchange(host, host + std::to_string(*of) + "." + std::to_string(i), 60s, of));
  }
  int addUntilFull(const std::string& host, User of) {
    int added = 0;
    for (; !queue.isFull(host, of); ++added) queue.add(exchange(host, "x", 60s, of));
    return added;
  }
  int activateAll() {
    int activated = 0;
    while (queue.next()) ++activated;
    return activated;
  }
  std::map<User, int> activatedByUser() {
    std::map<User, int> activated;
    while (const auto begun = queue.next()) ++activated[begun->user];
    return activated;
  }

  // One user alone has 32 exchanges and 16 connections, of a host 8 and 4.
  ExchangeQueue queue{{.exchanges = 32, .bytes = 3200, .active = 16, .hosts = 4}};
};

TEST_F(ExchangeQueueUsersTest, UsersOfAHostAreServedInTurn) {
  add("a", user, 3);
  add("a", other, 2);
  EXPECT_EQ(queue.next()->url, "a1000.0");
  EXPECT_EQ(queue.next()->url, "a1001.0");
  EXPECT_EQ(queue.next()->url, "a1000.1");
  EXPECT_EQ(queue.next()->url, "a1001.1");
  EXPECT_FALSE(queue.next()) << "two left over for others";
}

TEST_F(ExchangeQueueUsersTest, HostsAreServedInTurnBeforeUsers) {
  add("a", user, 2);
  add("a", other, 2);
  add("b", user, 1);
  EXPECT_EQ(queue.next()->url, "a1000.0");
  EXPECT_EQ(queue.next()->url, "b1000.0");
  EXPECT_EQ(queue.next()->url, "a1001.0");
}

TEST_F(ExchangeQueueUsersTest, OneUsersFullShareLeavesRoomForOthers) {
  EXPECT_EQ(addUntilFull("a", user), 8);
  EXPECT_FALSE(queue.isFull("b", user));
  EXPECT_EQ(addUntilFull("a", other), 2);
  EXPECT_FALSE(queue.isFull("a", third));
}

TEST_F(ExchangeQueueUsersTest, TheSameOfAllHostsTogether) {
  for (const char* host : {"a", "b", "c", "d"}) EXPECT_EQ(addUntilFull(host, user), 8);
  EXPECT_TRUE(queue.isFull("e", user));
  EXPECT_FALSE(queue.isFull("a", other));
  EXPECT_FALSE(queue.isFull("e", other));
}

TEST_F(ExchangeQueueUsersTest, AUserOfWhomNothingWaitsIsLetInWhateverWaits) {
  // Bodies that are larger than everything, of many users.
  for (std::uint32_t of = 1; of < 20; ++of) {
    ASSERT_FALSE(queue.isFull("a", of)) << of;
    Exchange large = exchange("a", "x", 60s, of);
    large.body.resize(100'000);
    queue.add(std::move(large));
    EXPECT_TRUE(queue.isFull("a", of));
  }
}

TEST_F(ExchangeQueueUsersTest, OneUsersConnectionsLeaveSomeForOthers) {
  add("a", user, 20);
  EXPECT_EQ(activateAll(), 4);
  add("a", other, 20);
  EXPECT_EQ(activatedByUser(), (std::map<User, int>{{other, 1}}));
  queue.finished("a", user);
  EXPECT_EQ(activatedByUser(), (std::map<User, int>{{other, 1}})) << "who has fewer";
}

TEST_F(ExchangeQueueUsersTest, TheSameOfTheConnectionsToAllHosts) {
  for (const char* host : {"a", "b", "c", "d", "e"}) add(host, user, 4);
  EXPECT_EQ(activateAll(), 16);
  add("e", other, 1);
  add("f", other, 1);
  EXPECT_EQ(activatedByUser(), (std::map<User, int>{{other, 2}}));
}

TEST_F(ExchangeQueueUsersTest, WhatHasEndedCountsNoMore) {
  for (int round = 0; round < 3; ++round) {
    add("a", user, 4);
    add("a", other, 4);
    int active = 0;
    std::vector<User> begun;
    while (const auto exchange = queue.next()) begun.push_back(exchange->user), ++active;
    EXPECT_EQ(active, 4);
    EXPECT_EQ(queue.removeAll().size(), 4u);
    for (const User of : begun) queue.finished("a", of);
    EXPECT_EQ(queue.waiting(), 0u);
    EXPECT_EQ(addUntilFull("a", user), 8);
    EXPECT_EQ(queue.removeAll().size(), 8u);
  }
}

}  // namespace
}  // namespace corvid
