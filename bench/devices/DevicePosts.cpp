#include "bench/devices/DevicePosts.h"

#include <fmt/format.h>

#include <array>
#include <chrono>
#include <string_view>
#include <utility>

#include "tools/Gzip.h"

namespace corvid::bench {

namespace {

double now() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// As a daemon writes it: 16 bytes as base64.
std::string sessionOf(std::uint64_t number) {
  constexpr std::string_view digits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::mt19937_64 random(number);
  std::string text;
  while (text.size() < 21) text += digits[random() % digits.size()];
  return text + "A==";
}

std::string damaged(std::string packed) {
  packed.resize(packed.size() - 4);
  return packed;
}

std::string withEvent(const std::string& members) {
  return R"({"clientId":"DAE71BE7-ACC1-4DAE-8443-D4DC4A19B73C","events":[{)" + members + "}]}";
}

}  // namespace

DevicePosts::DevicePosts(const std::string& run, std::size_t device, int events, std::string target,
                         std::string host)
    : _target(std::move(target)), _host(std::move(host)) {
  _events.client = client(run, device);
  _events.session = sessionOf(std::hash<std::string>()(_events.client));
  _events.start = static_cast<std::uint64_t>(now()) / 60 * 60;
  _events.count = events;
  _events.look = std::hash<std::string>()(_events.client) >> 16;
}

std::string DevicePosts::newRun() {
  std::random_device random;
  return fmt::format("{:08X}-{:04X}-4{:03X}-8{:03X}-", random(), random() & 0xFFFFu,
                     random() & 0xFFFu, random() & 0xFFFu);
}

std::string DevicePosts::client(const std::string& run, std::size_t device) {
  return fmt::format("{}{:012X}", run, device);
}

std::string DevicePosts::nextBody() {
  _events.sinceStart = now() - static_cast<double>(_events.start);
  return fleetBody(_events);
}

DevicePost DevicePosts::posted(const std::string& packed, bool isWrong) {
  const std::uint64_t first = _events.first;
  _events.first += static_cast<std::uint64_t>(_events.count);
  return {postRequest(_target, _host, "", packed), first, isWrong};
}

DevicePost DevicePosts::next() { return posted(gzip(nextBody()), false); }

DevicePost DevicePosts::nextWrong(std::mt19937_64& random) {
  const std::string sound = nextBody();
  const std::string nested(40, '[');
  const std::array<std::string, 9> wrong{
      sound.substr(0, sound.size() / 2),
      sound + "{}",
      "[" + sound + "]",
      R"({"clientId":"DAE71BE7-ACC1-4DAE-8443-D4DC4A19B73C"})",
      R"({"events":{}})",
      withEvent(R"("deep":)" + nested + std::string(40, ']')),
      withEvent(R"("nul":"\u0000")"),
      withEvent("\"text\":\"\xFF\""),
      withEvent(R"("number":1e999)"),
  };
  const std::size_t kind = random() % (wrong.size() + 1);
  return posted(kind < wrong.size() ? gzip(wrong[kind]) : damaged(gzip(sound)), true);
}

}  // namespace corvid::bench
