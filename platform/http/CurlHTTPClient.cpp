#include "platform/http/CurlHTTPClient.h"

#include <fmt/format.h>

#include <system_error>
#include <utility>

#include "base/Log.h"
#include "base/Share.h"
#include "base/Thread.h"
#include "platform/http/CurlMulti.h"

namespace corvid {
namespace {

using std::chrono::milliseconds;

constexpr std::string_view ended = "the HTTP client has ended";

HTTPOutcome failed(const Exchange& exchange, CURLcode code, std::string_view why) {
  return {std::nullopt,
          HTTPError{code, fmt::format("{}: {}", exchange.host, why), failureOf(code)}};
}

}  // namespace

CurlHTTPClient::CurlHTTPClient(std::shared_ptr<Clock> clock, Options options)
    : _clock(std::move(clock)),
      _options(std::move(options)),
      _heartbeat("HTTP", [this] { wake(); }),
      _allowsInsecureHTTP(_options.allowInsecureHTTP),
      _queue({.exchanges = mostWaitingExchanges,
              .bytes = mostWaitingBytes,
              .active = mostConnections,
              .hosts = hostsThatFillTheQueue}),
      _multi(std::make_unique<CurlMulti>(_options.caFile, capacityFor(mostConnections))) {}

CurlHTTPClient::~CurlHTTPClient() {
  std::thread thread;
  {
    const MutexLock lock(_mutex);
    _stopping = true;
    thread.swap(_thread);
  }
  wake();
  if (thread.joinable()) thread.join();
}

// ---- Any thread

void CurlHTTPClient::trust(std::optional<std::string> caFile, bool allowInsecureHTTP) {
  _allowsInsecureHTTP = allowInsecureHTTP;
  const MutexLock lock(_mutex);
  _newTrust = std::move(caFile);
}

void CurlHTTPClient::start(HTTPRequest request, HTTPCompletion completion) {
  Result<Exchange> made =
      makeExchange(std::move(request), _allowsInsecureHTTP, _clock->steadyNow());
  if (!made) {
    completion({std::nullopt, HTTPError{made.failure().code, made.failure().message,
                                        failureOf(made.failure().code)}});
    return;
  }
  made.value().completion = std::move(completion);
  if (auto refusal = enqueue(made.value()))
    made.value().completion(std::move(*refusal));
  else
    wake();
}

std::optional<HTTPOutcome> CurlHTTPClient::enqueue(Exchange& exchange) {
  const MutexLock lock(_mutex);
  const bool hasRoom = awaitRoom(exchange);
  if (_stopping) return failed(exchange, CURLE_ABORTED_BY_CALLBACK, ended);
  if (!hasRoom) {
    ++_refused;
    if (_refusedWithoutRoom[exchange.user]++ == 0)
      logWarning(
          "HTTPClient: too many exchanges wait, among them for {}; new ones fail until there is room",
          exchange.host);
    return failed(exchange, CURLE_AGAIN, "too many exchanges wait");
  }
  try {
    if (!_thread.joinable()) _thread = startThread("corvid-http", [this] { run(); });
  } catch (const std::system_error& error) {
    return failed(exchange, CURLE_OUT_OF_MEMORY, "no thread for it: " + error.code().message());
  }
  if (const auto refusals = _refusedWithoutRoom.extract(exchange.user))
    logWarning("HTTPClient: there is room for exchanges again; {} have failed", refusals.mapped());
  ++_underWay;
  _queue.add(std::move(exchange));
  _hasNews = true;
  return std::nullopt;
}

bool CurlHTTPClient::awaitRoom(Exchange& exchange) {
  const auto hasRoom = [&]() NO_THREAD_SAFETY_ANALYSIS {
    return !_queue.isFull(exchange.host, exchange.user);
  };
  if (hasRoom()) return true;
  if (exchange.patience <= milliseconds(0) || _thread.get_id() == std::this_thread::get_id())
    return false;
  const auto start = _clock->steadyNow();
  const bool inTime = _clock->waitUntil(_hasRoom, _mutex, start + exchange.patience, hasRoom);
  if (!exchange.deadlineCoversWait) exchange.deadline += _clock->steadyNow() - start;
  return inTime;
}

void CurlHTTPClient::wake() {
  bool sleepsInTransfer;
  {
    const MutexLock lock(_mutex);
    sleepsInTransfer = std::exchange(_sleepsInTransfer, false);
  }
  // Without the mutex, or the client's thread would wake only to wait for that.
  if (sleepsInTransfer)
    _multi->wake();
  else
    _hasWork.notify_one();
}

std::map<std::string, HTTPClient::Load> CurlHTTPClient::loads() const {
  const MutexLock lock(_mutex);
  return _queue.loads();
}

// ---- The client's thread

void CurlHTTPClient::run() {
  const Heartbeat::Running running(_heartbeat);
  while (auto work = takeWork()) {
    if (work->trust) _multi->trust(*std::move(work->trust));
    for (Exchange& exchange : work->expired) {
      HTTPOutcome outcome =
          failed(exchange, CURLE_OPERATION_TIMEDOUT, "timed out before there was a connection");
      complete(std::move(exchange), std::move(outcome));
    }
    begin(std::move(work->toBegin));
    if (_multi->active() == 0) continue;
    auto endedTransfers = _multi->perform(_clock->steadyNow());
    for (auto& [exchange, outcome] : endedTransfers)
      finish(std::move(exchange), std::move(outcome));
    if (endedTransfers.empty()) sleepUntilTransfer();
  }
  abandonAll();
  _multi->close();
}

bool CurlHTTPClient::waitForWork(std::optional<milliseconds> longest) {
  const MutexLock lock(_mutex);
  // A question is answered asleep: it neither is work nor keeps connections.
  const auto hasWork = [this]() NO_THREAD_SAFETY_ANALYSIS {
    _heartbeat.beat();
    return _stopping || _queue.waiting() > 0;
  };
  if (longest) return _clock->waitUntil(_hasWork, _mutex, _clock->steadyNow() + *longest, hasWork);
  _hasWork.wait(_mutex, hasWork);
  return true;
}

std::optional<CurlHTTPClient::Work> CurlHTTPClient::takeWork() {
  if (_multi->active() == 0 && !waitForWork(_options.connectionIdleTime)) {
    _multi->close();
    waitForWork(std::nullopt);
  }
  const MutexLock lock(_mutex);
  _sleepsInTransfer = false;
  _hasNews = false;
  _heartbeat.beat();
  if (_stopping) return std::nullopt;
  Work work;
  work.trust = std::exchange(_newTrust, std::nullopt);
  if (_queue.waiting() > 0) work.expired = _queue.removeExpired(_clock->steadyNow());
  while (auto exchange = _queue.next()) work.toBegin.push_back(std::move(*exchange));
  if (!work.toBegin.empty() || !work.expired.empty()) _hasRoom.notify_all();
  return work;
}

void CurlHTTPClient::begin(std::vector<Exchange> exchanges) {
  for (Exchange& exchange : exchanges) {
    const ActingFor acting(exchange.user);
    if (exchange.mayLeave && !exchange.mayLeave()) {
      HTTPOutcome outcome =
          failed(exchange, CURLE_ABORTED_BY_CALLBACK, "withdrawn before it was sent");
      outcome.error->kind = HTTPFailure::withdrawn;
      finish(std::move(exchange), std::move(outcome));
    } else if (curlLibrary()) {
      _multi->begin(std::move(exchange), _clock->steadyNow());
    } else {
      HTTPOutcome outcome = failed(exchange, CURLE_FAILED_INIT, curlLibrary().failure().message);
      finish(std::move(exchange), std::move(outcome));
    }
  }
}

void CurlHTTPClient::sleepUntilTransfer() {
  std::chrono::nanoseconds longest;
  {
    const MutexLock lock(_mutex);
    if (_hasNews || _stopping || _heartbeat.isAsked()) return;
    longest = _clock->sleepTowards(_queue.nextDeadline());
    _sleepsInTransfer = true;
  }
  _multi->sleep(std::chrono::ceil<milliseconds>(longest));
}

void CurlHTTPClient::abandonAll() {
  std::vector<Exchange> waiting;
  {
    const MutexLock lock(_mutex);
    waiting = _queue.removeAll();
  }
  std::vector<Exchange> active = _multi->abandon();
  for (auto* const exchanges : {&active, &waiting})
    for (Exchange& exchange : *exchanges) {
      HTTPOutcome outcome = failed(exchange, CURLE_ABORTED_BY_CALLBACK, ended);
      complete(std::move(exchange), std::move(outcome));
    }
}

void CurlHTTPClient::finish(Exchange exchange, HTTPOutcome outcome) {
  {
    const MutexLock lock(_mutex);
    _queue.finished(exchange.host, exchange.user);
  }
  complete(std::move(exchange), std::move(outcome));
}

void CurlHTTPClient::complete(Exchange exchange, HTTPOutcome outcome) {
  // The rest of the exchange takes no memory once its completion runs, and what that holds goes
  // before the exchange counts as over.
  const ActingFor acting(exchange.user);
  HTTPCompletion completion = Exchange(std::move(exchange)).completion;
  completion(std::move(outcome));
  completion = nullptr;
  if (--_underWay == 0 && _options.onIdle) _options.onIdle();
}

}  // namespace corvid
