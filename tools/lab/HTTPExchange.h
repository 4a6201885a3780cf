// What a server of the lab receives and what its handler answers, faults included.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <utility>

#include "base/Text.h"
#include "platform/HTTPClient.h"

namespace corvid::lab {

struct Request {
  std::string method{};
  std::string target{};  // path and query, as it came
  HTTPHeaders headers{};
  std::string body{};
  std::size_t connection = 0;  // number of the connection it came on, from 0 in order of acceptance

  // The first value of the header, found without regard to case.
  std::optional<std::string> header(std::string_view name) const {
    for (const auto& [key, value] : headers)
      if (equalsIgnoringCase(key, name)) return value;
    return std::nullopt;
  }
  // How many headers of that name came.
  std::size_t headerCount(std::string_view name) const {
    return static_cast<std::size_t>(std::ranges::count_if(
        headers, [&](const auto& header) { return equalsIgnoringCase(header.first, name); }));
  }
};

// An answer, sent as a well-behaved server would unless one of the faults is asked for.
struct Answer {
  // Sends `pieceSize` bytes of the body at a time, with a pause before each.
  struct Drip {
    std::size_t pieceSize = 1;
    std::chrono::milliseconds pause{1};
  };

  // Writes a piece of a body; false once the peer is gone or the server stops.
  using Write = std::function<bool(std::string_view)>;

  int status = 200;
  // "Content-Length" is added with the right value; one that stands here is sent instead.
  HTTPHeaders headers{};
  std::string body{};

  std::chrono::milliseconds delay{0};         // before the first byte
  std::optional<Drip> drip{};                 // a slow body
  std::optional<std::size_t> cutHeadAfter{};  // the connection breaks after so many bytes
  std::optional<std::size_t> cutBodyAfter{};  // the same, counted in the body
  std::optional<std::string> raw{};           // these bytes instead of all, then the end
  bool endless = false;  // the body over and over, without a length, until the peer goes
  bool silent = false;   // nothing at all; the connection stays open until the peer goes
  bool hangUp = false;   // ends the connection properly after the answer, without announcing it
  // Writes the body instead, on the connection's thread and without a length: the connection ends
  // when this returns, which it does soon after `stop`.
  std::function<void(const Write& write, const std::stop_token& stop)> stream{};

  static Answer redirect(std::string location, int status = 302) {
    return {.status = status, .headers = {{"Location", std::move(location)}}};
  }
};

// Runs on a thread of the connection, several connections at once.
using Handler = std::function<Answer(const Request&)>;

}  // namespace corvid::lab
