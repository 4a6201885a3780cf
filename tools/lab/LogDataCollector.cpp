#include "tools/lab/LogDataCollector.h"

#include <fmt/format.h>

#include "platform/data/PropertyList.h"
#include "tools/corvidctl/JSONValues.h"
#include "tools/lab/EventCollector.h"

namespace corvid::lab {

Answer LogDataCollector::answer(const Request& request) {
  if (request.method != "POST") return {.status = 405, .body = "log data comes by POST\n"};
  Dictionary entry{{"server", "logData"},
                   {"target", request.target},
                   {"headers", headerDictionary(request.headers)},
                   {"bytes", request.body.size()}};
  const Result<Value> list = parsePropertyList(request.body);
  std::string error;
  if (!list)
    error = "the body is no property list: " + list.failure().message;
  else if (!list.value().array())
    error = "the property list is no array";
  if (error.empty())
    entry.set("logData", ctl::jsonFromValue(list.value()));
  else
    entry.set("error", error);
  _log.append(entry);
  if (!error.empty()) return {.status = 400, .body = error + "\n"};
  return {.status = 200, .body = fmt::format("lab/log-data/{}", ++_stored)};
}

}  // namespace corvid::lab
