// Three nodes of RabbitMQ for the cases of one program.
#pragma once

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <atomic>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "gateway/log/MessageLog.h"
#include "tests/gateway/engines/RabbitCluster.h"
#include "tests/support/Waiting.h"

namespace corvid::fleet {

class ClusterTest : public ::testing::Test {
 public:
  // The nodes serve.
  static RabbitCluster* sharedCluster() {
    static RabbitCluster cluster;
    static const bool isUp = cluster.awaitAll(std::chrono::seconds(120));
    if (!isUp) throw std::runtime_error(cluster.lastWords(0));
    return &cluster;
  }

 protected:
  ClusterTest() : _cluster(sharedCluster()) {}

  // A stream of the case's own.
  static std::string stream() {
    return ::testing::UnitTest::GetInstance()->current_test_info()->name();
  }
  static LogMessage message(std::size_t number, std::string body = "{}") {
    return {.stream = stream(),
            .id = fmt::format("id-{}", number),
            .headers = {{"received", "1795255262.334619"}, {"X-CVD-Sender", "ZH"}},
            .body = std::move(body)};
  }
  // Publishes `count` messages and waits until each is stored.
  static void store(LogPublisher& publisher, std::size_t count) {
    std::atomic<std::size_t> stored{0};
    for (std::size_t number = 0; number < count; ++number)
      publisher.publish(message(number), [&](Published outcome) {
        if (outcome == Published::stored) ++stored;
      });
    ASSERT_TRUE(waitUntil([&] { return stored == count; }));
  }
  // Reads until `count` messages have come, or for long. What came twice stands there once.
  static std::vector<LoggedMessage> readAll(LogReader& reader, std::size_t count) {
    std::vector<LoggedMessage> all;
    std::set<std::string> ids;
    (void)waitUntil([&] {
      for (LoggedMessage& one : reader.read(1000, std::chrono::milliseconds(100)))
        if (ids.insert(one.message.id).second) all.push_back(std::move(one));
      return all.size() >= count;
    });
    return all;
  }
  static std::set<std::string> idsOf(const std::vector<LoggedMessage>& messages) {
    std::set<std::string> ids;
    for (const LoggedMessage& one : messages) ids.insert(one.message.id);
    return ids;
  }

  RabbitCluster* const _cluster;
};

}  // namespace corvid::fleet
