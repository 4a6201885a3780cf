// What a device sends: docs/posts.md, docs/uploads.md and docs/dashboard-packet.md.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tools/lab/conform/Collector.h"

namespace corvid::lab::conform {

// Header lines without their ends.
using Lines = std::vector<std::string>;

// Makes requests; none has the body of another. One thread.
class Device {
 public:
  // `collector` is borrowed.
  explicit Device(const Collector& collector);

  // In each of its posts, so that they can be found, and removed.
  const std::string& clientID() const { return _clientID; }

  // A post of so many events, of which each has `more` too: members as JSON text, such as
  // R"("key":1)".
  std::string post(std::size_t events = 1, std::string_view more = {});
  // The lines that devices send with it.
  static Lines postLines();

  // A request by POST with its length and these lines.
  std::string request(std::string_view target, std::string_view body, const Lines& lines) const;
  // The head alone, with these lines and no others but Host.
  std::string head(std::string_view start, const Lines& lines) const;
  // A sound post, whole: as request() to the address of events.
  std::string soundPost() { return request(*_collector.events, post(), postLines()); }

  const Collector& collector() const { return _collector; }

 private:
  const Collector& _collector;
  const std::string _clientID;
  std::size_t _posts = 0;
};

}  // namespace corvid::lab::conform
