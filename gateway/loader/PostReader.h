// What a post's body says.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvid::fleet {

struct PostedEvent {
  std::string_view payload;  // the event's JSON text, in the body
  std::optional<std::string> sender;
  std::optional<std::string> session;
  std::optional<std::string> build;
  std::optional<std::int64_t> method;
  std::optional<std::int64_t> status;
  std::optional<std::int64_t> number;
  std::optional<std::int64_t> version;
  std::optional<double> time;  // seconds since 1970
};

struct Post {
  std::string client;
  std::vector<PostedEvent> events;  // in their order
};

// A key of another type than it has to be counts as missing; so does a number that is not whole
// where it has to be. std::invalid_argument with one line where the text is no post: no JSON, or
// without a text "clientId" of 1024 bytes at most or an array of limits::events objects "events" at
// most.
Post postFrom(std::string_view body);

}  // namespace corvid::fleet
