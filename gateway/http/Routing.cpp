#include "gateway/http/Routing.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/beast/core/string.hpp>
#include <chrono>
#include <iterator>
#include <utility>

#include "gateway/Limits.h"
#include "gateway/Metrics.h"
#include "gateway/body/PostBody.h"
#include "gateway/uploads/UploadBody.h"

namespace corvid::fleet {

namespace {

bool isGzip(const RequestHead& head) { return boost::beast::iequals(head.encoding, "gzip"); }

bool isKnownEncoding(const RequestHead& head) {
  return head.encodings == 0 ||
         (head.encodings == 1 &&
          (isGzip(head) || boost::beast::iequals(head.encoding, "identity")));
}

std::string receivedNow() {
  const std::chrono::duration<double> time = std::chrono::system_clock::now().time_since_epoch();
  return fmt::format("{:.6f}", time.count());
}

std::unique_ptr<Exchange> postBody(RequestHead head, Route route, Worker& worker,
                                   std::chrono::steady_clock::duration hold,
                                   std::shared_ptr<Budget::Share> share) {
  PostBody::Headers headers{{"received", receivedNow()},
                            {"route", std::string(routeWords[static_cast<std::size_t>(route)])}};
  // A body holds no zero byte, so that nothing in it is taken for these.
  std::string client;
  for (const char* const name : {"X-CVD-Sender", "X-CVD-Client-Name", "X-CVD-Service-Name"}) {
    const std::string* const value = head.cvdValue(name);
    client.append(1, '\0').append(value ? *value : std::string());
  }
  const bool isGzip = fleet::isGzip(head);
  std::ranges::move(head.cvd, std::back_inserter(headers));
  return std::make_unique<PostBody>(
      PostBody::Request{
          .kind = route == Route::logs ? PostBody::Kind::logData : PostBody::Kind::events,
          .isGzip = isGzip,
          .length = head.length.value_or(0),
          .headers = std::move(headers),
          .client = std::move(client),
          .hold = hold,
          .share = std::move(share)},
      worker.gunzips(), worker.shared().budget, worker.holding());
}

}  // namespace

Route routeOf(const RequestHead& head) {
  const std::string_view path = head.path();
  if (path == "/v1/events") return Route::events;
  if (path == "/v1/realtime") return Route::realtime;
  if (path == "/v1/uploads") return Route::uploads;
  if (path == "/v1/logs") return Route::logs;
  return Route::none;
}

std::optional<Rule> faultOf(const RequestHead& head, Route route, const Shared& shared) {
  if (route == Route::none || (route == Route::uploads && !shared.uploads))
    return Rule::unknownAddress;
  if (head.method != "POST") return Rule::method;
  if (!head.length && !head.isChunked) return Rule::lengthMissing;
  const std::size_t most = route == Route::uploads ? limits::sentFileBytes : limits::sentBytes;
  if (head.length.value_or(0) > most) return Rule::sentTooLarge;
  if (!isKnownEncoding(head)) return Rule::encoding;
  if (head.cvdFault) return head.cvdFault;
  if (route == Route::uploads && !UploadQuery::parse(head.query())) return Rule::query;
  return std::nullopt;
}

std::unique_ptr<Exchange> exchangeFor(RequestHead head, Route route, Worker& worker,
                                      std::chrono::steady_clock::duration hold,
                                      std::shared_ptr<Budget::Share> share,
                                      std::function<void()> goOn) {
  if (route != Route::uploads)
    return postBody(std::move(head), route, worker, hold, std::move(share));
  Shared& shared = worker.shared();
  return std::make_unique<UploadBody>(
      UploadBody::Request{.query = *UploadQuery::parse(head.query()),
                          .length = head.length.value_or(0),
                          .freeSpace = worker.inForce().settings.freeSpace,
                          .goOn = std::move(goOn),
                          .share = std::move(share)},
      *shared.uploads, shared.disk, shared.budget, worker.mailbox());
}

std::optional<Answer> monitorsAnswer(const RequestHead& head, bool all, Worker& worker) {
  const bool isHealth = head.path() == "/healthz";
  if (!isHealth && !(all && head.path() == "/metrics")) return std::nullopt;
  if (head.method != "GET") return Answer{.status = 405, .body = "by GET only\n", .allow = "GET"};
  Shared& shared = worker.shared();
  const bool isReady = shared.log.isReady();
  if (isHealth) {
    if (worker.isStopping()) return Answer{.status = 503, .body = "stopping\n"};
    if (!isReady) return Answer{.status = 503, .body = "the log does not answer\n"};
    return Answer{.body = "ready\n"};
  }
  return Answer{.body = metricsText(shared.ledger.balance(), {.memory = shared.budget.used(),
                                                              .memoryLimit = shared.budget.total(),
                                                              .waiting = shared.waiting,
                                                              .clients = shared.clients.size(),
                                                              .logIsReady = isReady}),
                .type = metricsType};
}

}  // namespace corvid::fleet
