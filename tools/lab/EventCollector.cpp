#include "tools/lab/EventCollector.h"

#include "base/Text.h"
#include "platform/data/JSON.h"
#include "tools/lab/Gunzip.h"

namespace corvid::lab {

Dictionary headerDictionary(const HTTPHeaders& headers) {
  Dictionary dictionary;
  for (const auto& [name, value] : headers) dictionary.set(name, value);
  return dictionary;
}

Answer EventCollector::answer(const Request& request) const {
  if (request.method != "POST") return {.status = 405, .body = "events come by POST\n"};

  Dictionary entry{{"server", _name},
                   {"target", request.target},
                   {"headers", headerDictionary(request.headers)},
                   {"bytes", request.body.size()}};
  std::string error;
  std::optional<std::string> text = request.body;
  const std::string encoding = request.header("Content-Encoding").value_or("identity");
  if (equalsIgnoringCase(encoding, "gzip")) {
    text = gunzip(request.body);
    if (!text) error = "the body is not gzip";
  } else if (!equalsIgnoringCase(encoding, "identity")) {
    text = std::nullopt;
    error = "the body is encoded as " + encoding + ", which nobody reads here";
  }
  if (text) {
    Result<Value> message = parseJSON(*text);
    if (message)
      entry.set("message", std::move(message).value());
    else
      error = "the body is not JSON: " + message.failure().message;
  }
  if (!error.empty()) entry.set("error", error);
  _log.append(entry);
  return error.empty() ? Answer{.status = 200} : Answer{.status = 400, .body = error + "\n"};
}

}  // namespace corvid::lab
