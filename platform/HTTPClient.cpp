#include "platform/HTTPClient.h"

#include <future>
#include <memory>

#include "base/Text.h"

namespace corvid {

std::optional<std::string> HTTPResponse::header(std::string_view name) const {
  std::optional<std::string> found;
  for (const auto& [key, value] : headers)
    if (equalsIgnoringCase(key, name)) found = found ? *found + ", " + value : value;
  return found;
}

HTTPOutcome performAndWait(HTTPClient& client, HTTPRequest request) {
  const auto promise = std::make_shared<std::promise<HTTPOutcome>>();
  client.start(std::move(request),
               [promise](HTTPOutcome outcome) { promise->set_value(std::move(outcome)); });
  return promise->get_future().get();
}

}  // namespace corvid
