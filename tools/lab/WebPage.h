// The page to watch the lab with.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "tools/lab/Feed.h"
#include "tools/lab/HTTPServer.h"

namespace corvid::lab {

// Plain HTTP on 127.0.0.1: GET / and the files of the page, GET /feed for the stream of what
// happens (Feed, and "hello" with this run's {"run":TEXT} before all), GET /storebags/NAME for what
// a storebag says, as JSON for people, and POST /fault with a JSON object to plan a fault.
//
// What a page of another origin sends is refused with 403 (isOfThisOrigin), nothing is allowed to
// others, and the page itself may load and frame nothing but its own.
//
// Threads   any.
// Limits    `mostViewers` streams at once; one more is refused with 503.
class WebPage {
 public:
  static constexpr int mostViewers = 16;

  // What it shows, called on any thread.
  struct Lab {
    Feed& feed;                     // borrowed
    std::function<void()> refresh;  // looks for changes of states; called every now and then
    Handler plan;
    std::function<Answer(const std::string& name)> storebag;
  };

  // On 127.0.0.1; port 0 takes a free one.
  WebPage(Lab lab, std::uint16_t port);

  std::uint16_t port() const { return _server.port(); }

 private:
  static constexpr std::chrono::milliseconds pulse{1000};

  Answer answer(const Request& request);
  Answer stream(const Request& request);

  const Lab _lab;
  std::atomic<int> _viewers = 0;
  HTTPServer _server;  // last: its threads use all the others
};

}  // namespace corvid::lab
