#include "platform/HTTPClient.h"

#include <memory>
#include <semaphore>

#include "base/Text.h"

namespace corvid {

std::optional<std::string> HTTPResponse::header(std::string_view name) const {
  std::optional<std::string> found;
  for (const auto& [key, value] : headers)
    if (equalsIgnoringCase(key, name)) found = found ? *found + ", " + value : value;
  return found;
}

HTTPOutcome performAndWait(HTTPClient& client, HTTPRequest request) {
  struct Waiting {
    std::binary_semaphore done{0};
    HTTPOutcome outcome;
  };
  // Shared: the completion may still be inside release() when the caller has gone on.
  auto waiting = std::make_shared<Waiting>();
  client.start(std::move(request), [waiting](HTTPOutcome outcome) {
    waiting->outcome = std::move(outcome);
    waiting->done.release();
  });
  waiting->done.acquire();
  return std::move(waiting->outcome);
}

}  // namespace corvid
