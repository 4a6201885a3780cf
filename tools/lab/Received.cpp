#include "tools/lab/Received.h"

#include <fmt/format.h>

#include <stdexcept>

#include "base/Describe.h"
#include "base/Reading.h"
#include "platform/data/JSON.h"

namespace corvid::lab {

namespace {

std::string described(const Dictionary& dictionary, std::string_view key) {
  const Value* value = dictionary.find(key);
  return value ? description(*value) : "-";
}

std::string eventLine(const Dictionary& event) {
  std::string payload;
  for (const auto& [key, value] : event)
    if (!key.starts_with('_') && key != "eventTime")
      payload += fmt::format(" {}={}", key, description(value));
  return fmt::format("    event {} method {} status {}:{}\n", described(event, "_eventNumber"),
                     described(event, "_method"), described(event, "_status"), payload);
}

std::string packetLine(const Dictionary& packet) {
  std::string payload;
  if (const Dictionary* pairs = dictionaryAt(packet, "payload"))
    for (const auto& [key, value] : *pairs)
      payload += fmt::format(" {}={}", key, description(value));
  return fmt::format("    packet {} method {} status {}:{}\n", described(packet, "eventID"),
                     described(packet, "method"), described(packet, "respCode"), payload);
}

std::string fileLine(const Dictionary& entry, const Dictionary& file) {
  const Dictionary* query = dictionaryAt(entry, "query");
  return fmt::format("    file {} of {} bytes\n", query ? described(*query, "filename") : "-",
                     described(file, "size"));
}

}  // namespace

ReceivedLog::ReceivedLog(const std::string& path) : _file(path, std::ios::binary | std::ios::app) {
  if (!_file) throw std::runtime_error("cannot write " + path);
}

void ReceivedLog::append(const Dictionary& entry) {
  const std::string line =
      writeJSON(entry).value_or("{\"error\":\"received something that JSON cannot hold\"}");
  const MutexLock lock(_mutex);
  _file << line << '\n' << std::flush;
}

std::string summary(const Dictionary& entry) {
  std::string text =
      fmt::format("{} received {} bytes", described(entry, "server"), described(entry, "bytes"));
  if (const Dictionary* headers = dictionaryAt(entry, "headers")) {
    if (headers->contains("Content-Encoding"))
      text += fmt::format(", {}", described(*headers, "Content-Encoding"));
    text += fmt::format(", from sender {}", described(*headers, "X-CVD-Sender"));
  }
  text += '\n';
  if (const std::string* error = stringAt(entry, "error")) text += "    error: " + *error + "\n";
  if (const Dictionary* packet = dictionaryAt(entry, "packet")) text += packetLine(*packet);
  if (const Dictionary* file = dictionaryAt(entry, "file")) text += fileLine(entry, *file);
  if (const Array* logData = arrayAt(entry, "logData"))
    text += "    log data: " + description(*logData) + "\n";
  const Dictionary* message = dictionaryAt(entry, "message");
  const Array* events = message ? arrayAt(*message, "events") : nullptr;
  if (events)
    for (const Value& event : *events)
      if (const Dictionary* record = event.dictionary()) text += eventLine(*record);
  return text;
}

}  // namespace corvid::lab
