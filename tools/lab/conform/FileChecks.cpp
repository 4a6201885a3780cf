#include <fmt/format.h>

#include "platform/data/PropertyList.h"
#include "tools/Gzip.h"
#include "tools/lab/conform/Checks.h"
#include "tools/lab/conform/Connection.h"

namespace corvid::lab::conform {

namespace {

const Lines uploadLines{"Content-Type: application/octet-stream", "Content-Encoding: gzip"};
const Lines logLines{"Content-Type: application/octet-stream"};

// Where a file of this name goes, which stands in the query as it is.
std::string addressOf(const Device& device, std::string_view name) {
  const std::string& path = *device.collector().uploads;
  return fmt::format(
      "{}{}uuid={}&sequence=44&description=Parley%20AFRC%20log%20(Uploaded%20by%20Mantle)"
      "&filename={}&raw=true",
      path, path.find('?') == path.npos ? '?' : '&', device.clientID(), name);
}

std::string packedFile(Device& device) { return gzip("12:00 call begins\n" + device.post()); }

Trial uploaded(Device& device, std::string sent, std::string_view body, Expected expected,
               std::string_view name = "call%20log.txt.gz") {
  return {std::move(sent), device.request(addressOf(device, name), body, uploadLines), expected};
}

std::vector<Trial> upload(Device& device) {
  return {uploaded(device, "a file", packedFile(device), Expected::taken)};
}

std::vector<Trial> uploadAgain(Device& device) {
  const std::string file = packedFile(device);
  return {uploaded(device, "a file", file, Expected::taken),
          uploaded(device, "the same file again", file, Expected::taken)};
}

std::vector<Trial> damaged(Device& device, std::string_view name) {
  const std::string file = packedFile(device);
  const auto trial = [&](std::string sent, std::string_view body) {
    return uploaded(device, std::move(sent), body, Expected::refused, name);
  };
  return {trial("a file that is not compressed", "12:00 call begins\n"),
          trial("a file without its last byte", file.substr(0, file.size() - 1)),
          trial("a file with text behind it", file + "text"), trial("an empty body", "")};
}

std::vector<Trial> uploadDamaged(Device& device) { return damaged(device, "call%20log.txt.gz"); }

std::vector<Trial> uploadWord(Device& device) { return damaged(device, "success"); }

std::vector<Trial> uploadNames(Device& device) {
  std::vector<Trial> trials;
  for (const char* const name :
       {"", "..%2F..%2F..%2Fetc%2Fpasswd", "%00", "a%00b", "%ff%fe", "%", "a%0d%0ab"})
    trials.push_back(uploaded(device, fmt::format("a file of the name \"{}\"", name),
                              packedFile(device), Expected::notFailed, name));
  trials.push_back(uploaded(device, "a file with a name of 3000 letters", packedFile(device),
                            Expected::notFailed, std::string(3000, 'x')));
  return trials;
}

std::vector<Trial> uploadLength(Device& device) {
  const std::string file = packedFile(device);
  const std::string start = fmt::format("POST {} HTTP/1.1", addressOf(device, "a.gz"));
  const auto announced = [&](std::string sent, std::size_t length, Expected expected) {
    Lines lines = uploadLines;
    lines.push_back(fmt::format("Content-Length: {}", length));
    return Trial{std::move(sent), device.head(start, lines) + file, expected};
  };
  Trial longer =
      announced("a file that ends before its length", file.size() + 100, Expected::notTaken);
  longer.endsWriting = true;
  return {longer,
          announced("a file that is longer than its length", file.size() - 10, Expected::refused)};
}

std::string logData(Device& device) {
  return *archivedData({Value("12:00 call begins"), Value(device.post())});
}

std::vector<Trial> logDataAgain(Device& device) {
  const std::string body = logData(device);
  const std::string request = device.request(*device.collector().logs, body, logLines);
  return {{"log data", request, Expected::taken},
          {"the same log data again", request, Expected::taken}};
}

std::vector<Trial> wrongLogData(Device& device) {
  std::vector<Trial> trials;
  for (const char* const body : {"", "bplist00", "hello", R"({"events":[]})"})
    trials.push_back({fmt::format("\"{}\" as log data", body),
                      device.request(*device.collector().logs, body, logLines), Expected::refused});
  return trials;
}

// The answer says where the log data is.
std::optional<Breach> saysWhere(Device& device) {
  Connection connection(device.collector());
  connection.send(device.request(*device.collector().logs, logData(device), logLines));
  const Reply reply = connection.reply();
  if (reply.isTaken() && !reply.body.empty()) return std::nullopt;
  return Breach{"log data", reply.isTaken() ? reply.text() + " without a place" : reply.text()};
}

}  // namespace

std::vector<Check> fileChecks() {
  constexpr Address uploads = Address::uploads;
  constexpr Address logs = Address::logs;
  return {
      checkOf("upload", uploads, "a file that is taken is answered with \"success\"", upload),
      checkOf("uploadAgain", uploads, "a file that comes again is answered so again", uploadAgain),
      checkOf("uploadDamaged", uploads, "what is not one whole gzip stream is refused",
              uploadDamaged),
      checkOf("uploadWord", uploads, "no refusal repeats \"success\", whoever says it", uploadWord),
      checkOf("uploadNames", uploads, "no name of a file is a failure", uploadNames),
      checkOf("uploadLength", uploads, "a file of another length than is said is not taken",
              uploadLength),
      {"logData", logs, "log data is answered with the place where it is", saysWhere},
      checkOf("logDataAgain", logs, "log data that comes again is taken again", logDataAgain),
      checkOf("logDataWrong", logs, "what is no property list is refused", wrongLogData),
  };
}

}  // namespace corvid::lab::conform
