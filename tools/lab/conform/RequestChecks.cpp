#include <fmt/format.h>

#include "tools/lab/conform/Checks.h"

namespace corvid::lab::conform {

namespace {

constexpr std::uint64_t tebibyte = std::uint64_t{1} << 40;
constexpr std::size_t endlessHead = 100'000;

// A head to the address of events with these lines beside those of a post, and what follows it.
Trial headed(Device& device, std::string sent, Lines lines, std::string_view rest,
             Expected expected) {
  for (const std::string& line : Device::postLines()) lines.push_back(line);
  const std::string start = fmt::format("POST {} HTTP/1.1", *device.collector().events);
  return {std::move(sent), device.head(start, lines).append(rest), expected};
}

std::vector<Trial> method(Device& device) {
  const std::string& path = *device.collector().events;
  return {{"GET", device.head(fmt::format("GET {} HTTP/1.1", path), {}), Expected::refused},
          {"DELETE", device.head(fmt::format("DELETE {} HTTP/1.1", path), {}), Expected::refused}};
}

std::vector<Trial> address(Device& device) {
  const std::string path(*device.collector().events, 0, device.collector().events->find('?'));
  return {{"a post to an address below that of events",
           device.request(path + "/none", device.post(), Device::postLines()), Expected::refused}};
}

std::vector<Trial> noLength(Device& device) {
  return {headed(device, "a post that says neither length nor chunks", {}, "", Expected::refused)};
}

std::vector<Trial> wrongLength(Device& device) {
  const std::string body = device.post();
  const auto trial = [&](std::string sent, Lines lines) {
    return headed(device, std::move(sent), std::move(lines), body, Expected::notTaken);
  };
  const std::string right = fmt::format("Content-Length: {}", body.size());
  return {
      trial("a length that is no number", {"Content-Length: 1x"}),
      trial("a negative length", {"Content-Length: -1"}),
      trial("a length beyond 64 bits", {"Content-Length: 99999999999999999999"}),
      trial("two lengths that differ", {right, "Content-Length: 3"}),
      trial("a length and chunks", {right, "Transfer-Encoding: chunked"}),
      trial("an encoding of the transfer that nobody knows", {"Transfer-Encoding: odd, chunked"})};
}

std::vector<Trial> hugeLength(Device& device) {
  return {headed(device, "a length of 1 TiB", {fmt::format("Content-Length: {}", tebibyte)}, "{",
                 Expected::refused)};
}

std::vector<Trial> chunks(Device& device) {
  const std::string body = device.post();
  const std::string rest = fmt::format("{:x}\r\n{}\r\n0\r\n\r\n", body.size(), body);
  return {headed(device, "a post in chunks", {"Transfer-Encoding: chunked"}, rest,
                 Expected::notFailed)};
}

std::vector<Trial> cutBody(Device& device) {
  Trial trial = headed(device, "half of a post, and then the end", {"Content-Length: 1000"},
                       R"({"events":[)", Expected::notTaken);
  trial.endsWriting = true;
  return {trial};
}

std::vector<Trial> endlessHeaders(Device& device) {
  const std::string start = fmt::format("POST {} HTTP/1.1", *device.collector().events);
  const std::string length = "Content-Length: 0";
  return {
      {fmt::format("a header of {} bytes", endlessHead),
       device.head(start, {"X-Odd: " + std::string(endlessHead, 'x'), length}), Expected::notTaken},
      {fmt::format("an address of {} bytes", endlessHead),
       device.head(fmt::format("POST /{} HTTP/1.1", std::string(endlessHead, 'x')), {length}),
       Expected::notTaken}};
}

std::vector<Trial> oddHeaders(Device& device) {
  const std::string& path = *device.collector().events;
  const auto trial = [&](std::string sent, Lines lines) {
    lines.emplace_back("Content-Type: application/json");
    return Trial{std::move(sent), device.request(path, device.post(), lines), Expected::notFailed};
  };
  return {
      trial("X-CVD-Sender twice", {"X-CVD-Sender: ZH", "X-CVD-Sender: QA"}),
      trial("X-CVD-Client-Name of 5000 bytes", {"X-CVD-Client-Name: " + std::string(5000, 'x')}),
      trial("X-CVD-Client-Name with a tab", {"X-CVD-Client-Name: a\tb"}),
      trial("X-CVD-Client-Name that is no UTF-8", {"X-CVD-Client-Name: \xff\xfe"})};
}

std::vector<Trial> noHTTP(Device& device) {
  const std::string& path = *device.collector().events;
  return {
      {"a line of text", "hello\r\n\r\n", Expected::notTaken},
      {"a header without a colon", device.head(fmt::format("POST {} HTTP/1.1", path), {"odd"}),
       Expected::notTaken},
      {"bytes that are no text", std::string("\x16\x03\x01\x02\0\r\n\r\n", 9), Expected::notTaken}};
}

}  // namespace

std::vector<Check> requestChecks() {
  constexpr Address events = Address::events;
  return {
      checkOf("method", events, "other methods than POST are refused", method),
      checkOf("address", events, "an address where nothing is taken refuses", address),
      checkOf("noLength", events, "a post without a length is refused", noLength),
      checkOf("wrongLength", events, "a length that cannot be meant is not taken", wrongLength),
      checkOf("hugeLength", events, "a length that nobody has is refused before the body is there",
              hugeLength),
      checkOf("chunks", events, "a post in chunks is no failure", chunks),
      checkOf("cutBody", events, "a post that breaks off is not taken", cutBody),
      checkOf("endlessHeaders", events, "headers without an end are not taken", endlessHeaders),
      checkOf("oddHeaders", events, "odd X-CVD headers are no failure", oddHeaders),
      checkOf("noHTTP", events, "what is no HTTP is not taken", noHTTP),
  };
}

}  // namespace corvid::lab::conform
