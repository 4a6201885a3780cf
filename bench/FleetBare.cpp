#include "bench/FleetBare.h"

#include <fmt/format.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <semaphore>
#include <stdexcept>
#include <vector>

#include "bench/GatewayParts.h"
#include "bench/GatewayPosts.h"
#include "gateway/loader/Rows.h"
#include "gateway/log/LogURL.h"

namespace corvid::bench {

namespace {

constexpr int underWay = 100;

// User and system time of this process so far, all threads.
double ownMicros() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto micros = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
  };
  return micros(usage.ru_utime) + micros(usage.ru_stime);
}

fleet::LogMessage messageOf(const FleetPost& post, const char* stream, std::size_t number) {
  return {.stream = stream,
          .id = fmt::format("{:064x}", number),
          .headers = {{"received", "1795255262.334619"}, {"X-CVD-Sender", "ZH"}},
          .body = post.body};
}

}  // namespace

void measureBarePublish(const std::string& logURL, int nodes, int events, int seconds) {
  const auto posts = makeFleetPosts(64, events);
  const auto publisher = fleet::makeLog(logURL);
  std::counting_semaphore<underWay> room(underWay);
  std::atomic<std::size_t> stored{0};
  const auto begun = std::chrono::steady_clock::now();
  const double before = ownMicros();
  for (std::size_t i = 0; std::chrono::steady_clock::now() - begun < std::chrono::seconds(seconds);
       ++i) {
    room.acquire();
    publisher->publish(messageOf(posts[i % posts.size()], "bare", i),
                       [&](fleet::Published outcome) {
                         stored += outcome == fleet::Published::stored ? 1 : 0;
                         room.release();
                       });
  }
  for (int i = 0; i < underWay; ++i) room.acquire();
  const double micros = ownMicros() - before;
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begun;
  const auto count = static_cast<double>(stored);
  fmt::print(
      "bare publish, {} nodes, {} events a post, {} under way: {:.0f} messages/s, {:.0f} us of the "
      "publisher's CPU a message\n",
      nodes, events, underWay, count / time.count(), micros / count);
  std::fflush(stdout);
}

void measureBareCopy(fleet::Database& database, int events) {
  constexpr std::size_t postsEach = 500;
  database.runAll(
      "DROP TABLE IF EXISTS bare_event; CREATE TABLE bare_event (day date, received timestamptz, "
      "message text, number int, client_id text, sender text, method int, status int, "
      "event_time timestamptz, session text, event_number int, build text, version bigint, "
      "payload jsonb)");
  const auto posts = makeFleetPosts(postsEach, events);
  std::string lines;
  for (std::size_t i = 0; i < posts.size(); ++i) {
    const fleet::LogMessage message = messageOf(posts[i], "events", i);
    (void)fleet::appendEventLines(lines, message, fleet::timesOf(message));
  }
  const std::string columns = fleet::eventColumns;
  const std::string table = "bare_event" + columns.substr(columns.find(' '));
  constexpr int rounds = 4;
  const auto begun = std::chrono::steady_clock::now();
  const auto before = threadTime();
  for (int round = 0; round < rounds; ++round) {
    fleet::Transaction transaction(database);
    database.copy(table, lines);
    transaction.commit();
  }
  const auto count = static_cast<double>(postsEach) * rounds * events;
  const double micros = inMicros(threadTime() - before);
  const double time = inMicros(std::chrono::steady_clock::now() - begun);
  fmt::print(
      "bare COPY, {} events a post: {:.2f} us of this program's CPU an event, {:.0f} events/s\n",
      events, micros / count, count / time * 1e6);
  std::fflush(stdout);
}

}  // namespace corvid::bench
