// The HTTP client over libcurl.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/Heartbeat.h"
#include "base/Mutex.h"
#include "platform/Clock.h"
#include "platform/HTTPClient.h"
#include "platform/http/ExchangeQueue.h"

namespace corvid {

class CurlMulti;

// One thread carries all exchanges and runs their completions; it starts with the first exchange,
// as do libcurl and its memory. It sleeps on a condition while there is nothing to do and in
// libcurl while transfers run.
//
// Protocol  HTTP/1.1 over connections that are kept and used again; TLS 1.2 or newer, verified.
//           HTTP/2 is not offered: with requests this small it takes more work for each.
//           A request goes out at most once: one that met a connection which the server had closed
//           meanwhile is moved to another before anything is sent, and is never sent again after.
//           Its headers go out as given; of its own the client adds Host and Content-Length only.
//           No cookies, no stored credentials, no proxy: what stands in the environment does not
//           matter. Names that end in ".invalid" fail without asking the resolver.
// Threads   As HTTPClient says. `onIdle` runs on the client's thread.
// Limits    The constants below, of one user alone, and Transfer's for answers; of all users
//           together half as much again. Past what may wait, in all or for its host, a user's new
//           exchange fails, which is counted and logged once until there is room again; one that
//           waits too long for a connection times out like any other.
// Time      Waiting goes by `clock`, what libcurl does by the system's steady time.
// Errors    Codes are libcurl's (CURLcode), the texts name the host, never the rest of the URL.
//           A method other than GET and POST, a URL that is neither https nor http, one that holds
//           a user name, and headers that hold line breaks are refused.
// Stop      The destructor completes every exchange that is under way with an error, waits for
//           running completions and ends the thread; not from a completion.
class CurlHTTPClient final : public HTTPClient {
 public:
  static constexpr std::size_t mostConnections = 32;
  static constexpr std::size_t mostConnectionsPerHost = 8;
  // Of what waits. So large that one owner who keeps to 16 MiB, a kilobyte at least each, fills no
  // more than the share of a host.
  static constexpr std::size_t mostWaitingExchanges = 65'536;
  // One exchange that finds less waiting is let in whatever its size.
  static constexpr std::size_t mostWaitingBytes = 64 * 1024 * 1024;
  // The share of a host in both, as in connections: hosts that do not answer leave room for others.
  static constexpr std::size_t hostsThatFillTheQueue = mostConnections / mostConnectionsPerHost;

  struct Options {
    // Certificates to trust instead of the system's, as a PEM file.
    std::optional<std::string> caFile{};
    bool allowInsecureHTTP = false;
    // After so long without any exchange all connections are closed and their memory is freed.
    std::chrono::milliseconds connectionIdleTime = std::chrono::seconds(90);
    // Called each time exchangesUnderWay() has fallen to 0; others may have been started since.
    std::function<void()> onIdle{};
  };

  CurlHTTPClient(std::shared_ptr<Clock> clock, Options options);
  ~CurlHTTPClient() override;

  // What holds for exchanges that begin from now on: the certificates to trust, as the file has
  // them now, and whether plain http may leave. Those under way end as they began. Any thread.
  void trust(std::optional<std::string> caFile, bool allowInsecureHTTP) EXCLUDES(_mutex);

  void start(HTTPRequest request, HTTPCompletion completion) override EXCLUDES(_mutex);
  std::size_t exchangesUnderWay() const override { return _underWay; }
  std::map<std::string, Load> loads() const override EXCLUDES(_mutex);
  // Exchanges that found the queue full, since the start.
  std::size_t exchangesRefused() const { return _refused; }
  Heartbeat& heartbeat() { return _heartbeat; }

 private:
  using CAFile = std::optional<std::string>;

  struct Work {
    std::vector<Exchange> toBegin;
    std::vector<Exchange> expired;  // waited too long
    std::optional<CAFile> trust;    // another from now on
  };

  // Any thread.

  // Hands `exchange` over to the client's thread; where that fails, leaves it and gives its
  // outcome.
  std::optional<HTTPOutcome> enqueue(Exchange& exchange) EXCLUDES(_mutex);
  // False where there is no room in good time.
  bool awaitRoom(Exchange& exchange) REQUIRES(_mutex);
  // After a change to what its thread looks at.
  void wake() EXCLUDES(_mutex);

  // The client's thread.

  void run();
  // False when there was none for so long.
  bool waitForWork(std::optional<std::chrono::milliseconds> longest) EXCLUDES(_mutex);
  // Waits for some where nothing is under way. Nothing at the end.
  std::optional<Work> takeWork() EXCLUDES(_mutex);
  void begin(std::vector<Exchange> exchanges) EXCLUDES(_mutex);
  void sleepUntilTransfer() EXCLUDES(_mutex);
  void abandonAll() EXCLUDES(_mutex);
  // Of one that has left the queue for a connection.
  void finish(Exchange exchange, HTTPOutcome outcome) EXCLUDES(_mutex);
  void complete(Exchange exchange, HTTPOutcome outcome);

  // Constant after construction.
  const std::shared_ptr<Clock> _clock;
  const Options _options;

  // By themselves.
  Heartbeat _heartbeat;
  std::atomic<std::size_t> _underWay = 0;
  std::atomic<std::size_t> _refused = 0;
  std::atomic<bool> _allowsInsecureHTTP;

  // Shared between callers and the client's thread.
  mutable Mutex _mutex;
  Condition _hasWork;
  Condition _hasRoom;
  ExchangeQueue _queue GUARDED_BY(_mutex);
  // By users for whom there is no room: since there was some last.
  std::map<User, std::size_t> _refusedWithoutRoom GUARDED_BY(_mutex);
  std::optional<CAFile> _newTrust GUARDED_BY(_mutex);
  bool _hasNews GUARDED_BY(_mutex) = false;  // since work was taken last
  bool _sleepsInTransfer GUARDED_BY(_mutex) = false;
  bool _stopping GUARDED_BY(_mutex) = false;
  std::thread _thread GUARDED_BY(_mutex);

  // The client's thread only, save that wake() wakes it.
  const std::unique_ptr<CurlMulti> _multi;
};

}  // namespace corvid
