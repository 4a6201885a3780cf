#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <utility>

#include "tools/lab/conform/Checks.h"
#include "tools/lab/conform/Connection.h"

namespace corvid::lab::conform {

namespace {

constexpr std::size_t posts = 3;
constexpr std::size_t loiterers = 16;
// As long as clients wait that ask first.
constexpr std::chrono::milliseconds waitForGoAhead{1000};

std::optional<Breach> keepsAlive(Device& device) {
  Connection connection(device.collector());
  for (std::size_t i = 0; i < posts; ++i) {
    connection.send(device.soundPost());
    const Reply reply = connection.reply();
    if (auto breach =
            breachOf(reply, Expected::taken, fmt::format("post {} on one connection", i + 1)))
      return breach;
    if (reply.closes()) break;
  }
  return std::nullopt;
}

std::optional<Breach> answersInOrder(Device& device) {
  Connection connection(device.collector());
  const std::string none = device.request("/no/such/address", "{}", Device::postLines());
  connection.send(device.soundPost() + none);
  const Reply first = connection.reply();
  if (auto breach = breachOf(first, Expected::taken, "a post with another request behind it"))
    return breach;
  if (first.closes()) return std::nullopt;
  return breachOf(connection.reply(), Expected::refused,
                  "a request to no address, behind a post that was not answered yet");
}

std::optional<Breach> goesAhead(Device& device) {
  Connection connection(device.collector());
  const std::string body = device.post();
  Lines lines = Device::postLines();
  lines.emplace_back("Expect: 100-continue");
  lines.push_back(fmt::format("Content-Length: {}", body.size()));
  connection.send(device.head(fmt::format("POST {} HTTP/1.1", *device.collector().events), lines));
  const Reply first = connection.reply(std::min(waitForGoAhead, device.collector().patience));
  const bool goesOn = first.kind == Reply::Kind::silence || first.status == 100;
  if (!goesOn) return Breach{"a head with Expect: 100-continue", first.text()};
  connection.send(body);
  return breachOf(connection.reply(), Expected::taken, "a post that asked first");
}

std::optional<Breach> servesOthers(Device& device) {
  std::vector<std::unique_ptr<Connection>> waiting;
  for (std::size_t i = 0; i < loiterers; ++i) {
    waiting.push_back(std::make_unique<Connection>(device.collector()));
    const std::string post = device.soundPost();
    waiting.back()->send(std::string_view(post).substr(0, post.size() - 1));
  }
  Connection connection(device.collector());
  connection.send(device.soundPost());
  return breachOf(connection.reply(), Expected::taken,
                  fmt::format("a post while {} others are not whole", loiterers));
}

}  // namespace

std::vector<Check> connectionChecks() {
  constexpr Address events = Address::events;
  return {
      {"keepAlive", events, "no connection ends after an answer that did not say so", keepsAlive},
      {"pipelining", events, "requests that come at once are answered in their order",
       answersInOrder},
      {"goAhead", events, "a client that asks first is told to go on", goesAhead},
      {"othersServed", events, "nobody waits for the posts of others", servesOthers},
  };
}

}  // namespace corvid::lab::conform
