// The thread that carries the exchanges of a CurlHTTPClient.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "base/Mutex.h"
#include "platform/http/CurlHTTPClient.h"
#include "platform/http/CurlLibrary.h"
#include "platform/http/ExchangeQueue.h"
#include "platform/http/Transfer.h"

namespace corvid {

// Threads   add, underWay, refused: any. stop: any but its own. Everything else runs on the
//           worker's thread, which sleeps on a condition while there is nothing to do and in
//           libcurl while transfers run. It is woken from either only while it sleeps.
class HTTPWorker {
 public:
  using Options = CurlHTTPClient::Options;

  explicit HTTPWorker(Options options);
  ~HTTPWorker() { stop(); }
  HTTPWorker(const HTTPWorker&) = delete;
  HTTPWorker& operator=(const HTTPWorker&) = delete;

  // Waits for room in the queue as long as `exchange` has patience, and not on the worker's thread.
  // Completes it at once where there is none then, or the worker is at its end.
  void add(Exchange exchange) EXCLUDES(_mutex);
  // Completes everything with an error and ends the thread. From now on add() completes at once.
  void stop() EXCLUDES(_mutex);
  std::size_t underWay() const { return _underWay; }
  std::size_t refused() const { return _refused; }

 private:
  enum class Sleep { none, untilWork, untilTransfer };
  struct Cleanup {
    void operator()(CURLM* multi) const { curl().multi_cleanup(multi); }
  };

  void run();
  // False where there is no room in good time.
  bool awaitRoom(Exchange& exchange) REQUIRES(_mutex);
  // False when there was none for so long.
  bool waitForWork(std::optional<std::chrono::milliseconds> longest) EXCLUDES(_mutex);
  // Takes the exchanges to begin and those that waited too long; where there is nothing under way
  // it waits for some. False at the end.
  bool takeWork() EXCLUDES(_mutex);
  void beginTransfers();
  void refuseTransfers(const std::string& why) EXCLUDES(_mutex);
  void failExpired();
  void openMulti();
  void dropConnections();
  // True when some transfer has ended.
  bool completeEnded();
  void sleepUntilTransfer() EXCLUDES(_mutex);
  void abandonAll() EXCLUDES(_mutex);

  void finish(Transfer& transfer, HTTPOutcome outcome) EXCLUDES(_mutex);
  void complete(HTTPCompletion completion, HTTPOutcome outcome);
  void wake() REQUIRES(_mutex);

  // Constant after construction.
  const Options _options;

  // By themselves.
  std::atomic<std::size_t> _underWay = 0;
  std::atomic<std::size_t> _refused = 0;

  // Shared between callers and the worker's thread.
  Mutex _mutex;
  std::condition_variable_any _condition;
  ExchangeQueue _queue GUARDED_BY(_mutex);
  std::condition_variable_any
      _room;  // signalled when some leave the queue and others wait to enter
  std::size_t _waitingForRoom GUARDED_BY(_mutex) = 0;
  std::size_t _refusedWithoutRoom GUARDED_BY(_mutex) = 0;  // since there was room last
  Sleep _sleep GUARDED_BY(_mutex) = Sleep::none;
  bool _hasNews GUARDED_BY(_mutex) = false;  // since work was taken last
  bool _stopping GUARDED_BY(_mutex) = false;
  std::thread _thread GUARDED_BY(_mutex);

  // The worker's thread only.
  std::vector<Exchange> _toBegin;
  std::vector<Exchange> _expired;
  KeptConnections _keptConnections;
  std::vector<std::unique_ptr<Transfer>> _transfers;  // all there are, at most kConnections
  std::vector<Transfer*> _unused;
  std::size_t _active = 0;
  std::unique_ptr<CURLM, Cleanup> _multi;  // absent while there are no connections
};

}  // namespace corvid
