#include "platform/http/HTTPWorker.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <utility>

#include "base/Log.h"
#include "base/Thread.h"
#include "platform/http/CurlHTTPClient.h"

namespace corvid {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kLongestSleep = std::chrono::minutes(1);
constexpr std::string_view kEnded = "the HTTP client has ended";

HTTPOutcome failed(const Exchange& exchange, CURLcode code, std::string_view why) {
  return failedOutcome(code, fmt::format("{}: {}", exchange.host, why));
}

}  // namespace

HTTPWorker::HTTPWorker(Options options)
    : _options(std::move(options)),
      _queue({.exchanges = CurlHTTPClient::kWaitingExchanges,
              .bytes = CurlHTTPClient::kWaitingBytes,
              .hosts = CurlHTTPClient::kHostsThatFillTheQueue,
              .activePerHost = CurlHTTPClient::kConnectionsPerHost}) {}

void HTTPWorker::stop() {
  std::thread thread;
  {
    MutexLock lock(_mutex);
    _stopping = true;
    wake();
    thread.swap(_thread);
  }
  if (thread.joinable()) thread.join();
}

void HTTPWorker::add(Exchange exchange) {
  HTTPOutcome refusal;
  {
    MutexLock lock(_mutex);
    const bool hasRoom = awaitRoom(exchange);
    if (_stopping) {
      refusal = failed(exchange, CURLE_ABORTED_BY_CALLBACK, kEnded);
    } else if (!hasRoom) {
      refusal = failed(exchange, CURLE_AGAIN, "too many exchanges wait");
      ++_refused;
      if (_refusedWithoutRoom++ == 0)
        logWarning(
            "HTTPClient: too many exchanges wait, among them for {}; new ones fail until there is room",
            exchange.host);
    } else {
      if (const std::size_t refused = std::exchange(_refusedWithoutRoom, 0))
        logWarning("HTTPClient: there is room for exchanges again; {} have failed", refused);
      ++_underWay;
      _queue.add(std::move(exchange));
      _hasNews = true;
      if (!_thread.joinable()) _thread = startThread("corvid-http", [this] { run(); });
      wake();
      return;
    }
  }
  exchange.completion(std::move(refusal));
}

bool HTTPWorker::awaitRoom(Exchange& exchange) {
  const auto hasRoom = [&]() NO_THREAD_SAFETY_ANALYSIS { return !_queue.isFull(exchange.host); };
  if (hasRoom()) return true;
  if (exchange.patience <= milliseconds(0) || _thread.get_id() == std::this_thread::get_id())
    return false;
  const auto start = steady_clock::now();
  ++_waitingForRoom;
  const bool inTime = _room.wait_for(_mutex, exchange.patience, hasRoom);
  --_waitingForRoom;
  if (!exchange.deadlineCoversWait) exchange.deadline += steady_clock::now() - start;
  return inTime;
}

void HTTPWorker::wake() {
  if (_sleep == Sleep::untilWork) _condition.notify_one();
  if (_sleep == Sleep::untilTransfer) curl().multi_wakeup(_multi.get());
  _sleep = Sleep::none;
}

void HTTPWorker::run() {
  while (takeWork()) {
    failExpired();
    beginTransfers();
    if (_active == 0) continue;
    int running = 0;
    curl().multi_perform(_multi.get(), &running);
    if (!completeEnded()) sleepUntilTransfer();
  }
  abandonAll();
  dropConnections();
}

bool HTTPWorker::waitForWork(std::optional<milliseconds> longest) {
  MutexLock lock(_mutex);
  const auto hasWork = [this]()
                           NO_THREAD_SAFETY_ANALYSIS { return _stopping || _queue.waiting() > 0; };
  _sleep = Sleep::untilWork;
  if (longest) return _condition.wait_for(_mutex, *longest, hasWork);
  _condition.wait(_mutex, hasWork);
  return true;
}

bool HTTPWorker::takeWork() {
  if (_active == 0 && !waitForWork(_options.connectionIdleTime)) {
    dropConnections();
    waitForWork(std::nullopt);
  }
  MutexLock lock(_mutex);
  _sleep = Sleep::none;
  _hasNews = false;
  if (_queue.waiting() > 0) _expired = _queue.removeExpired(steady_clock::now());
  while (_active + _toBegin.size() < CurlHTTPClient::kConnections) {
    auto exchange = _queue.next();
    if (!exchange) break;
    _toBegin.push_back(std::move(*exchange));
  }
  if (_waitingForRoom > 0 && (!_toBegin.empty() || !_expired.empty())) _room.notify_all();
  return !_stopping;
}

void HTTPWorker::failExpired() {
  for (auto& exchange : _expired)
    complete(std::move(exchange.completion),
             failed(exchange, CURLE_OPERATION_TIMEDOUT, "timed out before there was a connection"));
  _expired.clear();
}

void HTTPWorker::beginTransfers() {
  if (_toBegin.empty()) return;
  if (!curlLibrary()) return refuseTransfers(curlLibrary().failure().message);
  if (!_multi) openMulti();
  for (auto& exchange : _toBegin) {
    if (_unused.empty()) {
      _transfers.push_back(std::make_unique<Transfer>(_options.caFile, _keptConnections));
      _unused.push_back(_transfers.back().get());
    }
    Transfer* const transfer = _unused.back();
    _unused.pop_back();
    transfer->begin(std::move(exchange), steady_clock::now());
    curl().multi_add_handle(_multi.get(), transfer->handle());
    ++_active;
  }
  _toBegin.clear();
}

void HTTPWorker::refuseTransfers(const std::string& why) {
  {
    MutexLock lock(_mutex);
    for (const auto& exchange : _toBegin) _queue.finished(exchange.host);
  }
  for (auto& exchange : _toBegin)
    complete(std::move(exchange.completion), failed(exchange, CURLE_FAILED_INIT, why));
  _toBegin.clear();
}

void HTTPWorker::openMulti() {
  _multi.reset(curl().multi_init());
  if (!_multi) throw std::bad_alloc();
  constexpr long connections = CurlHTTPClient::kConnections;
  curl().multi_setopt(_multi.get(), CURLMOPT_PIPELINING, static_cast<long>(CURLPIPE_NOTHING));
  curl().multi_setopt(_multi.get(), CURLMOPT_MAXCONNECTS, connections);
  curl().multi_setopt(_multi.get(), CURLMOPT_MAX_TOTAL_CONNECTIONS, connections);
}

void HTTPWorker::dropConnections() {
  _unused.clear();
  _transfers.clear();
  _multi.reset();
  _keptConnections.clear();
}

bool HTTPWorker::completeEnded() {
  bool hasEnded = false;
  int left = 0;
  while (const CURLMsg* const message = curl().multi_info_read(_multi.get(), &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    hasEnded = true;
    const CURLcode result = message->data.result;
    Transfer& transfer = *Transfer::of(message->easy_handle);
    if (transfer.metClosedConnection()) {
      curl().multi_remove_handle(_multi.get(), transfer.handle());
      transfer.startAgain(steady_clock::now());
      curl().multi_add_handle(_multi.get(), transfer.handle());
    } else {
      HTTPOutcome outcome = transfer.end(result);
      curl().multi_remove_handle(_multi.get(), transfer.handle());
      finish(transfer, std::move(outcome));
    }
  }
  return hasEnded;
}

void HTTPWorker::sleepUntilTransfer() {
  milliseconds longest = kLongestSleep;
  {
    MutexLock lock(_mutex);
    if (_hasNews || _stopping) return;
    if (const auto deadline = _queue.nextDeadline())
      longest = std::min(longest, std::max(milliseconds(0), std::chrono::ceil<milliseconds>(
                                                                *deadline - steady_clock::now())));
    _sleep = Sleep::untilTransfer;
  }
  curl().multi_poll(_multi.get(), nullptr, 0, static_cast<int>(longest.count()), nullptr);
}

void HTTPWorker::abandonAll() {
  for (const auto& transfer : _transfers) {
    const Exchange& exchange = transfer->exchange();
    if (!exchange.completion) continue;
    curl().multi_remove_handle(_multi.get(), transfer->handle());
    finish(*transfer, failed(exchange, CURLE_ABORTED_BY_CALLBACK, kEnded));
  }
  std::vector<Exchange> waiting;
  {
    MutexLock lock(_mutex);
    waiting = _queue.removeAll();
  }
  for (auto* const exchanges : {&_toBegin, &_expired, &waiting})
    for (auto& exchange : *exchanges)
      complete(std::move(exchange.completion), failed(exchange, CURLE_ABORTED_BY_CALLBACK, kEnded));
}

void HTTPWorker::finish(Transfer& transfer, HTTPOutcome outcome) {
  {
    MutexLock lock(_mutex);
    _queue.finished(transfer.exchange().host);
  }
  --_active;
  HTTPCompletion completion = transfer.release();
  _unused.push_back(&transfer);
  complete(std::move(completion), std::move(outcome));
}

void HTTPWorker::complete(HTTPCompletion completion, HTTPOutcome outcome) {
  completion(std::move(outcome));
  completion = nullptr;  // what it holds goes before the exchange counts as over
  if (--_underWay == 0 && _options.onIdle) _options.onIdle();
}

}  // namespace corvid
