#include "tools/lab/Collectors.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/Reading.h"
#include "base/Text.h"
#include "base/URL.h"
#include "platform/data/Crypto.h"
#include "platform/data/JSON.h"
#include "platform/data/PropertyList.h"
#include "tools/Gzip.h"
#include "tools/JSONValues.h"

namespace corvid::lab {

namespace {

Dictionary queryOf(std::string_view target) {
  Dictionary query;
  const std::size_t mark = target.find('?');
  if (mark == std::string_view::npos) return query;
  for (const std::string_view pair : split(target.substr(mark + 1), '&')) {
    const std::size_t nameEnd = std::min(pair.find('='), pair.size());
    const std::string_view value = pair.substr(std::min(nameEnd + 1, pair.size()));
    query.set(replacingInvalidUTF8(percentDecoded(pair.substr(0, nameEnd))),
              replacingInvalidUTF8(percentDecoded(value)));
  }
  return query;
}

Dictionary describedFile(const std::string& content) {
  Dictionary file{{"size", content.size()}, {"sha256", hexadecimal(sha256(content))}};
  if (content.size() <= Collectors::shownBytes && isValidUTF8(content))
    file.set("content", content);
  return file;
}

constexpr const char* noGzip = "the body is not gzip";

// Of a post, unpacked: devices have no more, and this machine shall not take what others send.
constexpr std::size_t postLimit = std::size_t{64} << 20;

// What a message lacks of being a post; empty where it is one.
std::string faultOfPost(const Value& message) {
  const Dictionary* const object = message.dictionary();
  if (object == nullptr) return "the body is no JSON object";
  const Array* const events = arrayAt(*object, "events");
  if (events == nullptr) return "the object has no array \"events\"";
  const auto isObject = [](const Value& event) { return event.dictionary() != nullptr; };
  return std::ranges::all_of(*events, isObject) ? "" : "an event is no object";
}

}  // namespace

Answer Collectors::collect(const std::string& server, std::string_view what, const Request& request,
                           Dictionary* logged, const Read& read) const {
  if (request.method != "POST") return {.status = 405, .body = fmt::format("{} by POST\n", what)};
  Dictionary headers;
  for (const auto& [name, value] : request.headers) headers.set(name, value);
  Dictionary entry{{"server", server},
                   {"target", request.target},
                   {"headers", headers},
                   {"bytes", request.body.size()}};
  const std::string error = read(entry);
  if (!error.empty()) entry.set("error", error);
  _log.append(entry);
  if (logged) *logged = std::move(entry);
  return error.empty() ? Answer{.status = 200} : Answer{.status = 400, .body = error + "\n"};
}

Answer Collectors::events(const std::string& server, const Request& request,
                          Dictionary* logged) const {
  return collect(server, "events come", request, logged, [&](Dictionary& entry) -> std::string {
    std::optional<std::string> text = request.body;
    const std::string encoding = request.header("Content-Encoding").value_or("identity");
    if (equalsIgnoringCase(encoding, "gzip"))
      text = gunzip(request.body, postLimit);
    else if (!equalsIgnoringCase(encoding, "identity"))
      return "the body is encoded as " + encoding + ", which nobody reads here";
    if (!text) return fmt::format("{} of {} MiB at most", noGzip, postLimit >> 20);
    Result<Value> message = parseJSON(*text);
    if (!message) return "the body is not JSON: " + message.failure().message;
    std::string fault = faultOfPost(message.value());
    entry.set("message", std::move(message).value());
    return fault;
  });
}

Answer Collectors::logData(const Request& request, Dictionary* logged) {
  Answer answer =
      collect("logData", "log data comes", request, logged, [&](Dictionary& entry) -> std::string {
        const Result<Value> list = parsePropertyList(request.body);
        if (!list) return "the body is no property list: " + list.failure().message;
        if (!list.value().array()) return "the property list is no array";
        entry.set("logData", tools::jsonFromValue(list.value()));
        return {};
      });
  if (answer.status == 200) answer.body = fmt::format("lab/log-data/{}", ++_logDataStored);
  return answer;
}

Answer Collectors::upload(const Request& request, Dictionary* logged) const {
  Answer answer =
      collect("upload", "files come", request, logged, [&](Dictionary& entry) -> std::string {
        entry.set("query", queryOf(request.target));
        const std::optional<std::string> content = gunzip(request.body);
        if (!content) return noGzip;
        entry.set("file", describedFile(*content));
        return {};
      });
  if (answer.status == 200) {
    answer.headers = {{"Content-Type", "application/json"}};
    answer.body = "{\"success\":true}\n";
  }
  return answer;
}

}  // namespace corvid::lab
