// The HTTP client over libcurl.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/HTTPClient.h"

namespace corvid {

class HTTPWorker;

// One thread carries all exchanges and runs their completions; it starts with the first exchange,
// as do libcurl and its memory.
//
// Protocol  HTTP/1.1 over connections that are kept and used again; TLS 1.2 or newer, verified.
//           HTTP/2 is not offered: with requests this small it takes more work for each.
//           A request goes out at most once: one that met a connection which the server had closed
//           meanwhile is moved to another before anything is sent, and is never sent again after.
//           Its headers go out as given; of its own the client adds Host and Content-Length only.
//           No cookies, no stored credentials, no proxy: what stands in the environment does not
//           matter. Names that end in ".invalid" fail without asking the resolver.
// Threads   As HTTPClient says. `onIdle` runs on the client's thread.
// Limits    The constants below. Past what may wait, in all or for its host, a new exchange fails,
//           which is counted and logged once until there is room again; one that waits too long for
//           a connection times out like any other.
// Errors    Codes are libcurl's (CURLcode), the texts name the host, never the rest of the URL.
//           A method other than GET and POST, a URL that is neither https nor http, one that holds
//           a user name, and headers that hold line breaks are refused.
// Stop      The destructor completes every exchange that is under way with an error, waits for
//           running completions and ends the thread; not from a completion.
class CurlHTTPClient final : public HTTPClient {
 public:
  static constexpr std::size_t kConnections = 32;
  static constexpr std::size_t kConnectionsPerHost = 8;
  static constexpr std::size_t kWaitingExchanges = 8192;
  // Of what waits; one that finds less waiting is let in whatever its size.
  static constexpr std::size_t kWaitingBytes = 8 * 1024 * 1024;
  // The share of a host in both, as in connections: hosts that do not answer leave room for others.
  static constexpr std::size_t kHostsThatFillTheQueue = kConnections / kConnectionsPerHost;
  static constexpr std::size_t kResponseBodyBytes = 8 * 1024 * 1024;
  static constexpr std::size_t kResponseHeaderBytes = 64 * 1024;

  struct Options {
    // Certificates to trust instead of the system's, as a PEM file.
    std::optional<std::string> caFile{};
    bool allowInsecureHTTP = false;
    // After so long without any exchange all connections are closed and their memory is freed.
    std::chrono::milliseconds connectionIdleTime = std::chrono::seconds(90);
    // Called each time exchangesUnderWay() has fallen to 0; others may have been started since.
    std::function<void()> onIdle{};
  };

  explicit CurlHTTPClient(Options options);
  ~CurlHTTPClient() override;

  void start(HTTPRequest request, HTTPCompletion completion) override;
  std::size_t exchangesUnderWay() const override;

  // Exchanges that found the queue full, since the start.
  std::size_t exchangesRefused() const;

 private:
  const bool _allowInsecureHTTP;
  const std::unique_ptr<HTTPWorker> _worker;
};

}  // namespace corvid
