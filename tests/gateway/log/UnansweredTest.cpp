// A log that nobody answers for.
#include <gtest/gtest.h>

#include <atomic>

#include "gateway/log/AMQPPublisher.h"
#include "gateway/log/LogURL.h"
#include "tests/support/Loopback.h"
#include "tests/support/Waiting.h"

namespace corvid::fleet {
namespace {

using namespace std::chrono_literals;

LogMessage message(std::size_t bytes = 10) {
  return {.stream = "events", .id = "one", .headers = {}, .body = std::string(bytes, 'x')};
}

// Connections stand, and nobody ever reads from them.
class DeafServer {
 public:
  std::uint16_t port() const { return _bound.port; }

 private:
  const BoundSocket _bound = listenOnLoopback();
};

TEST(AMQPPublisher, AnswersByItsDeadlineWhereTheLogIsDeaf) {
  const DeafServer server;
  AMQPPublisher publisher({.nodes = {{"127.0.0.1", server.port()}}}, {.patience = 200ms});
  std::atomic<int> unanswered{0};
  publisher.publish(message(), [&](Published outcome) {
    if (outcome == Published::unanswered) ++unanswered;
  });
  EXPECT_TRUE(waitUntil([&] { return unanswered == 1; }, 3s));
  EXPECT_FALSE(publisher.isReady());
}

TEST(AMQPPublisher, AnswersWhatItHoldsWhenItGoes) {
  const DeafServer server;
  std::atomic<int> unanswered{0};
  {
    AMQPPublisher publisher({.nodes = {{"127.0.0.1", server.port()}}}, {.patience = 1h});
    for (int count = 0; count < 3; ++count)
      publisher.publish(message(), [&](Published) { ++unanswered; });
  }
  EXPECT_EQ(unanswered, 3);
}

TEST(AMQPPublisher, HoldsNoMoreThanItMay) {
  const DeafServer server;
  AMQPPublisher publisher({.nodes = {{"127.0.0.1", server.port()}}},
                          {.patience = 1h, .mostBytes = 1 << 20});
  std::atomic<int> unanswered{0};
  for (int count = 0; count < 5; ++count)
    publisher.publish(message(300 << 10), [&](Published outcome) {
      if (outcome == Published::unanswered) ++unanswered;
    });
  EXPECT_TRUE(waitUntil([&] { return unanswered == 2; }));
}

TEST(AMQPPublisher, RefusesWhatNoNodeTakes) {
  const DeafServer server;
  AMQPPublisher publisher({.nodes = {{"127.0.0.1", server.port()}}}, {.patience = 1h});
  std::atomic<int> refused{0};
  const auto count = [&](Published outcome) {
    if (outcome == Published::refused) ++refused;
  };
  publisher.publish(message((128 << 20) + 1), count);
  LogMessage named = message();
  named.id.assign(256, 'x');
  publisher.publish(named, count);
  LogMessage headed = message();
  headed.headers.emplace_back("X-Long", std::string(70'000, 'x'));
  publisher.publish(headed, count);
  EXPECT_TRUE(waitUntil([&] { return refused == 3; }));
}

TEST(LogURL, MakesNoLogOfAnotherKind) {
  EXPECT_THROW(makeLog("kafka://127.0.0.1"), std::invalid_argument);
  EXPECT_THROW(makeLogReader("file:///tmp", {"events"}), std::invalid_argument);
}

}  // namespace
}  // namespace corvid::fleet
