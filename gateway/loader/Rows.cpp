#include "gateway/loader/Rows.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <charconv>
#include <chrono>
#include <cmath>
#include <ctime>
#include <limits>
#include <optional>

#include "gateway/loader/Database.h"
#include "gateway/loader/PostReader.h"

namespace corvid::fleet {

namespace {

constexpr double lastSecond = 253402300799.0;  // of the year 9999

const std::string* headerOf(const LogMessage& message, std::string_view name) {
  for (const auto& [key, value] : message.headers)
    if (key == name) return &value;
  return nullptr;
}

std::optional<double> secondsFrom(const std::string* text) {
  double seconds = 0;
  if (text == nullptr) return std::nullopt;
  const char* const end = text->data() + text->size();
  const auto [stop, error] = std::from_chars(text->data(), end, seconds);
  if (error != std::errc() || stop != end || !(seconds >= 0 && seconds <= lastSecond))
    return std::nullopt;
  return seconds;
}

std::string timestampOf(double seconds) {
  const double whole = std::floor(seconds);
  return fmt::format("{:%Y-%m-%d %H:%M:%S}.{:06}+00", fmt::gmtime(static_cast<std::time_t>(whole)),
                     static_cast<int>((seconds - whole) * 1e6));
}

void appendField(std::string& line, const std::optional<std::string>& text) {
  line += '\t';
  if (text)
    appendCopyField(line, *text);
  else
    line += copyNull;
}

// Without a value where the column does not hold it: the payload does.
void appendField(std::string& line, std::optional<std::int64_t> number, std::int64_t most) {
  if (number && *number <= most && *number >= -most)
    fmt::format_to(std::back_inserter(line), "\t{}", *number);
  else
    appendField(line, std::nullopt);
}

std::string headersAsJSON(const LogMessage& message) {
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  writer.StartObject();
  for (const auto& [key, value] : message.headers) {
    writer.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
    writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
  }
  writer.EndObject();
  return text.GetString();
}

}  // namespace

Times timesOf(const LogMessage& message) {
  const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
  const double seconds = secondsFrom(headerOf(message, "received")).value_or(now.count());
  return {.received = timestampOf(seconds),
          .day = fmt::format("{:%Y-%m-%d}", fmt::gmtime(static_cast<std::time_t>(seconds)))};
}

std::size_t appendEventLines(std::string& lines, const LogMessage& message, const Times& times) {
  constexpr std::int64_t mostInt = std::numeric_limits<std::int32_t>::max();
  constexpr std::int64_t mostBigint = std::numeric_limits<std::int64_t>::max();
  const Post post = postFrom(message.body);
  const std::string* const senderHeader = headerOf(message, "X-CVD-Sender");
  std::size_t number = 0;
  for (const PostedEvent& event : post.events) {
    lines += times.day;
    appendField(lines, times.received);
    appendField(lines, message.id);
    fmt::format_to(std::back_inserter(lines), "\t{}", number++);
    appendField(lines, post.client);
    appendField(lines, event.sender || senderHeader == nullptr ? event.sender : *senderHeader);
    appendField(lines, event.method, mostInt);
    appendField(lines, event.status, mostInt);
    const bool hasTime = event.time && *event.time >= 0 && *event.time <= lastSecond;
    appendField(lines, hasTime ? std::optional(timestampOf(*event.time)) : std::nullopt);
    appendField(lines, event.session);
    appendField(lines, event.number, mostInt);
    appendField(lines, event.build);
    appendField(lines, event.version, mostBigint);
    lines += '\t';
    appendCopyField(lines, event.payload);
    lines += '\n';
  }
  return post.events.size();
}

void appendLogDataLine(std::string& lines, const LogMessage& message, const Times& times) {
  lines += times.day;
  appendField(lines, times.received);
  appendField(lines, message.id);
  appendField(lines, headersAsJSON(message));
  lines += '\t';
  appendCopyBytes(lines, message.body);
  lines += '\n';
}

void appendRejectedLine(std::string& lines, const LogMessage& message, const Times& times,
                        const std::string& reason) {
  appendCopyField(lines, message.id);
  appendField(lines, message.stream);
  appendField(lines, times.received);
  appendField(lines, reason);
  appendField(lines, headersAsJSON(message));
  lines += '\t';
  appendCopyBytes(lines, message.body);
  lines += '\n';
}

}  // namespace corvid::fleet
