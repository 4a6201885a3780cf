// The process's one shared HTTP session.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/ActingUser.h"

namespace corvid {

class UnnamedFile;

using HTTPHeaders = std::vector<std::pair<std::string, std::string>>;

struct HTTPRequest {
  std::string method = "GET";
  std::string url{};
  HTTPHeaders headers{};  // sent as given, in this order as far as the protocol keeps one
  std::string body{};     // sent when the method is POST
  std::shared_ptr<const UnnamedFile> rest{};  // sent behind the body: what is too long for memory
  std::chrono::milliseconds timeout{60'000};  // for the whole exchange, once it is queued
  std::chrono::milliseconds patience{0};      // for which start waits where the queue is full
  bool timeoutCoversWait = false;             // what start waits is then part of the time-out
  // Read and dropped when false: the response then has no body.
  bool wantsBody = true;
  // Asked when its turn comes, on the client's thread: false ends it with an error, unsent. It may
  // not block. Empty where nothing can change meanwhile.
  std::function<bool()> mayLeave{};
  User user = actingUser();  // on whose behalf it goes
};

struct HTTPResponse {
  int status = 0;
  HTTPHeaders headers{};
  std::string body{};

  // The header's value, found without regard to case; those of several lines are joined by ", ".
  std::optional<std::string> header(std::string_view name) const;
};

// What kept an exchange from completing.
enum class HTTPFailure {
  resolve,
  connect,
  tls,
  timeout,
  closed,  // by the server
  tooLarge,
  queueFull,
  other,
  withdrawn,  // by its owner, unsent
};
inline constexpr std::size_t httpFailureCount = 9;

// Why an exchange did not complete. `code` is the transport's own and never 0.
struct HTTPError {
  int code = 0;
  std::string description;
  HTTPFailure kind = HTTPFailure::other;
};

// One outcome of an exchange: a response or an error. Any status, 5xx included, is a response.
struct HTTPOutcome {
  std::optional<HTTPResponse> response;
  std::optional<HTTPError> error;
};

using HTTPCompletion = std::function<void(HTTPOutcome)>;

// Starts exchanges and reports each outcome once.
//
// TLS is verified; redirects are not followed; nothing is retried. A response body over the
// client's cap, a redirect loop, plain http where the deployment does not allow it, and a full
// queue are errors like any other.
//
// Threads   start: any thread; returns at once, save that it waits for room in the queue as long as
//           the request has patience (not in a completion). The completion runs on the client's own
//           thread, or, where the exchange cannot even be queued, on the caller's before start
//           returns. A completion must not block.
//           The client's thread then acts for the request's user.
// Limits    A bounded number of exchanges waits, in all, for each host and for each user; past it
//           start fails the new one.
class HTTPClient {
 public:
  virtual ~HTTPClient() = default;
  virtual void start(HTTPRequest request, HTTPCompletion completion) = 0;
  // Exchanges started and not yet completed.
  virtual std::size_t exchangesUnderWay() const = 0;
  // Of those, by host, with the port where the URL names one.
  struct Load {
    std::size_t underWay = 0;  // on a connection
    std::size_t waiting = 0;
  };
  virtual std::map<std::string, Load> loads() const = 0;
};

// Starts the exchange and blocks the caller until its completion. Not from a completion.
HTTPOutcome performAndWait(HTTPClient& client, HTTPRequest request);

}  // namespace corvid
