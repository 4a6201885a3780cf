// What the database has of devices' posts.
#pragma once

#include <cstddef>
#include <string>

namespace corvid::fleet {

// What a device sent: `posts`, of which the first `acknowledged` were.
struct Sent {
  std::string client;
  std::size_t posts = 0;
  std::size_t acknowledged = 0;
};

// Asked by SQL, about every post of one device, made as Device makes them: posts that fit rows are
// to stand in corvid.event, an event a row, those that fit none in corvid.rejected, once and with a
// reason, and nothing else anywhere.
struct Stored {
  std::size_t lost = 0;      // posts that were acknowledged and are not there, or not whole
  std::size_t twice = 0;     // posts of which something stands there more than once
  std::size_t rejected = 0;  // posts that are kept apart with their reason
  std::size_t wrong = 0;     // posts in the wrong table, without a reason, or never made

  Stored& operator+=(const Stored& other);
};

// `target`: what libpq takes. DatabaseError where it does not answer.
Stored storedOf(const Sent& sent, const std::string& target);

}  // namespace corvid::fleet
