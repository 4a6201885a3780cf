// A simulated device before the whole path.
#pragma once

#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace corvid::fleet {

// Posts numbered events over TLS, packed, one post at a time on a connection that it keeps; a post
// that is not acknowledged again and again, as it was, until it is. Any thread but for await().
class Device {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::size_t eventsOfPost = 3;
  // Whether a post is one that gateways take and that fits no row.
  static bool isUnloadable(std::size_t post) { return post % 16 == 15; }
  // What a device of this name posts.
  static std::string bodyOf(const std::string& client, std::size_t post);

  struct Options {
    std::string url;
    std::string caFile;
    std::string client;                      // nobody else's
    std::chrono::milliseconds interval{20};  // between two posts
  };
  // Begins at once.
  explicit Device(Options options);

  // Makes no more posts; the last is tried again until `deadline`. Returns at once.
  void finish(Clock::time_point deadline);
  // Until the last try has ended, after finish().
  void await();

  const std::string& client() const { return _options.client; }

  struct Sums {
    std::size_t posts = 0;         // made, each counted once
    std::size_t acknowledged = 0;  // of these
    std::size_t tries = 0;
    std::size_t unanswered = 0;    // tries: the connection broke, or none was to be had
    std::size_t serverFaults = 0;  // tries answered with 5xx
    std::size_t otherFaults = 0;   // tries answered with anything else that is not 200
  };
  Sums sums() const;
  // When each post was acknowledged, in their order: the posts are numbered from 0.
  std::vector<Clock::time_point> acknowledgements() const;
  std::optional<Clock::time_point> firstAcknowledgedAfter(Clock::time_point moment) const;

 private:
  void run(const std::stop_token& stop);
  void count(long status);

  const Options _options;
  mutable std::mutex _mutex;
  Sums _sums;
  std::vector<Clock::time_point> _acknowledged;  // when each post was
  Clock::time_point _end = Clock::time_point::max();
  std::jthread _thread;
};

}  // namespace corvid::fleet
