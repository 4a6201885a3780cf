// Publisher and reader before RabbitMQ's three real nodes.
#include <algorithm>
#include <atomic>
#include <mutex>

#include "gateway/log/AMQPPublisher.h"
#include "gateway/log/AMQPReader.h"
#include "gateway/log/LogURL.h"
#include "tests/gateway/log/ClusterFixture.h"

namespace corvid::fleet {
namespace {

using namespace std::chrono_literals;

TEST_F(ClusterTest, MessagesComeBackAsTheyWerePublished) {
  const auto publisher = makeLog(_cluster->url());
  std::atomic<int> stored{0};
  // Larger than a frame, and with every byte.
  std::string body;
  while (body.size() < 500'000) body += static_cast<char>(body.size() * 7);
  publisher->publish(message(1, body), [&](Published outcome) {
    if (outcome == Published::stored) ++stored;
  });
  ASSERT_TRUE(waitUntil([&] { return stored == 1; }));
  EXPECT_TRUE(publisher->isReady());
  const auto read = readAll(*makeLogReader(_cluster->url(), {stream()}), 1);
  ASSERT_EQ(read.size(), 1U);
  EXPECT_EQ(read[0].message.stream, stream());
  EXPECT_EQ(read[0].message.id, "id-1");
  EXPECT_THAT(read[0].message.headers,  // from some logs in another order
              testing::UnorderedElementsAreArray(message(1).headers));
  EXPECT_EQ(read[0].message.body, body);
}

TEST_F(ClusterTest, WhatIsReleasedIsGoneAndWhatIsNotComesAgain) {
  store(*makeLog(_cluster->url()), 10);
  {
    const auto reader = makeLogReader(_cluster->url(), {stream()});
    const auto read = readAll(*reader, 10);
    ASSERT_EQ(read.size(), 10U);
    reader->release(read[3].position);
  }
  const auto again = readAll(*makeLogReader(_cluster->url(), {stream()}), 6);
  EXPECT_EQ(idsOf(again), (std::set<std::string>{"id-4", "id-5", "id-6", "id-7", "id-8", "id-9"}));
}

TEST_F(ClusterTest, ReadersShareAStream) {
  const AMQPAddress address = amqpAddressFrom(_cluster->url());
  AMQPReader one(address, {stream()}, {.ahead = 20});
  AMQPReader other(address, {stream()}, {.ahead = 20});
  store(*makeLog(_cluster->url()), 40);
  const auto first = readAll(one, 20);
  const auto second = readAll(other, 20);
  EXPECT_EQ(first.size(), 20U);
  EXPECT_EQ(second.size(), 20U);
  std::set<std::string> all = idsOf(first);
  all.merge(idsOf(second));
  EXPECT_EQ(all.size(), 40U);
}

TEST_F(ClusterTest, AReaderTakesNoMoreBytesAtOnceThanItMay) {
  const auto publisher = makeLog(_cluster->url());
  std::atomic<std::size_t> stored{0};
  for (std::size_t number = 0; number < 6; ++number)
    publisher->publish(message(number, std::string(1 << 20, 'x')),
                       [&](Published outcome) { stored += outcome == Published::stored ? 1 : 0; });
  ASSERT_TRUE(waitUntil([&] { return stored == 6; }));
  AMQPReader reader(amqpAddressFrom(_cluster->url()), {stream()}, {.mostBytes = 2 << 20});
  std::size_t read = 0;
  EXPECT_TRUE(waitUntil([&] {
    const auto messages = reader.read(100, 200ms);
    EXPECT_LE(messages.size(), 2U);
    read += messages.size();
    return read == 6;
  }));
}

TEST_F(ClusterTest, AReaderLeavesANodeThatLogsItInAndThenSaysNothing) {
  store(*makeLog(_cluster->url()), 1);
  const auto leader = _cluster->leaderOf(stream());
  ASSERT_TRUE(leader);
  const std::size_t parted = (*leader + 1) % LogCluster::size;
  AMQPAddress address = amqpAddressFrom(_cluster->url());
  address.nodes = {address.nodes[parted], address.nodes[*leader]};
  _cluster->cutOff(parted);
  // Each begins at one of the two.
  for (int count = 0; count < 4; ++count)
    EXPECT_NO_THROW(AMQPReader(address, {stream()}, {.connecting = 1s}));
  _cluster->joinAgain(parted);
  EXPECT_TRUE(_cluster->awaitAll(60s));
}

TEST_F(ClusterTest, WithoutAMajorityNothingIsStoredAndTheDeadlineHolds) {
  AMQPPublisher publisher(amqpAddressFrom(_cluster->url()), {.patience = 3s});
  store(publisher, 1);
  _cluster->freeze(1);
  _cluster->freeze(2);
  std::atomic<int> unanswered{0};
  std::atomic<int> stored{0};
  publisher.publish(message(1), [&](Published outcome) {
    ++(outcome == Published::stored ? stored : unanswered);
  });
  EXPECT_TRUE(waitUntil([&] { return unanswered == 1; }, 5s));
  EXPECT_TRUE(waitUntil([&] { return !publisher.isReady(); }));
  _cluster->thaw(1);
  _cluster->thaw(2);
  EXPECT_EQ(stored, 0);
  // It may take the publisher another deadline to find a node that goes on.
  EXPECT_TRUE(waitUntil(
      [&] {
        std::atomic<bool> isAnswered{false};
        publisher.publish(message(2), [&](Published outcome) {
          if (outcome == Published::stored) ++stored;
          isAnswered = true;
        });
        return waitUntil([&] { return isAnswered.load(); }, 6s) && stored > 0;
      },
      60s));
}

// The last case: it leaves two nodes.
TEST_F(ClusterTest, WhatWasStoredOutlivesItsLeaderAndPublishingGoesOn) {
  // A node that stood still may have left the others for a while.
  ASSERT_TRUE(_cluster->awaitAll(60s));
  const auto publisher = makeLog(_cluster->url());
  store(*publisher, 1);
  std::atomic<std::size_t> answered{1};
  std::mutex mutex;
  std::set<std::string> stored{"id-0"};
  const auto leader = _cluster->leaderOf(stream());
  ASSERT_TRUE(leader);
  std::size_t number = 1;
  const auto publishSome = [&] {
    for (const std::size_t end = number + 200; number < end; ++number)
      publisher->publish(message(number), [&, id = message(number).id](Published outcome) {
        const std::lock_guard lock(mutex);
        if (outcome == Published::stored) stored.insert(id);
        ++answered;
      });
  };
  publishSome();
  _cluster->kill(*leader);
  publishSome();
  ASSERT_TRUE(waitUntil([&] { return answered == number; }, 40s));
  EXPECT_EQ(stored.size(), number);
  const auto reader = makeLogReader(_cluster->url(), {stream()});
  std::set<std::string> found;
  EXPECT_TRUE(waitUntil([&] {
    for (const LoggedMessage& one : reader->read(1000, 100ms)) found.insert(one.message.id);
    return std::ranges::includes(found, stored);
  }));
}

}  // namespace
}  // namespace corvid::fleet
